#pragma once
// Texts of others in lines of our own.

#include <cstddef>
#include <string>
#include <string_view>

#include "base/byte_words.h"

namespace zr {

/// Whether the text has no byte below 0x20 and no 0x7F.
inline bool IsPrintable(std::string_view text) {
  return AllWords(
      text, [](std::uint64_t word) { return !AnyBelow(word, 0x20) && !AnyIs(word, 0x7f); });
}

/// Appends the text; bytes below 0x20 and 0x7F come as \xHH, so that no text can forge or break a
/// line, or steer a terminal.
inline void AppendPrintable(std::string& line, std::string_view text) {
  constexpr std::string_view kDigits = "0123456789ABCDEF";
  if (IsPrintable(text)) {  // nearly always
    line.append(text);
    return;
  }
  for (const char byte : text) {
    const auto value = static_cast<unsigned char>(byte);
    if (value >= 0x20 && value != 0x7f) {
      line += byte;
    } else {
      line += "\\x";
      line += kDigits[value >> 4];
      line += kDigits[value & 15];
    }
  }
}

}  // namespace zr
