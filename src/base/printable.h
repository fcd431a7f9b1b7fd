#pragma once
// Texts of others in lines of our own.

#include <string>
#include <string_view>

namespace zr {

/// Appends the text; bytes below 0x20 and 0x7F come as \xHH, so that no text can forge or break a
/// line, or steer a terminal.
inline void AppendPrintable(std::string& line, std::string_view text) {
  constexpr std::string_view kDigits = "0123456789ABCDEF";
  for (const char byte : text) {
    const auto value = static_cast<unsigned char>(byte);
    if (value >= 0x20 && value != 0x7f) {
      line += byte;
      continue;
    }
    line += "\\x";
    line += kDigits[value >> 4];
    line += kDigits[value & 15];
  }
}

}  // namespace zr
