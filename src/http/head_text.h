#pragma once
// Pieces of a message head that is being written.

#include <cstdint>
#include <string>
#include <string_view>

#include "base/string_buffer.h"

namespace zr {

/// The text without its bytes CR and LF: what a handler set cannot begin a line of its own.
void AppendText(ZrStringBuf& out, std::string_view text);
std::string WithoutLineEnds(std::string_view text);
/// The number in decimal.
void AppendNumber(ZrStringBuf& out, std::uint64_t number);

}  // namespace zr
