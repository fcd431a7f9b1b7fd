#include "base/exception.h"

#include <utility>

ZrException::ZrException(std::string message, int /*line*/, const char* /*source*/)
    : message_(std::move(message)) {}

ZrException_SSL::ZrException_SSL(const std::string& message, int line, const char* source)
    : ZrException("(SSL) " + message, line, source) {}
