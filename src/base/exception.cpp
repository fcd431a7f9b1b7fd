#include "base/exception.h"

#include <utility>

ZrException::ZrException(std::string message, int /*number*/, const char* /*tag*/)
    : message_(std::move(message)) {}

ZrException_SSL::ZrException_SSL(const std::string& message, int number, const char* tag)
    : ZrException("(SSL) " + message, number, tag) {}
