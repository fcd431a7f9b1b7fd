#pragma once
// Texts of others in lines of our own.

#include <algorithm>
#include <cstddef>
#include <string>
#include <string_view>

namespace zr {

/// Appends the text; bytes below 0x20 and 0x7F come as \xHH, so that no text can forge or break a
/// line, or steer a terminal.
inline void AppendPrintable(std::string& line, std::string_view text) {
  constexpr std::string_view kDigits = "0123456789ABCDEF";
  while (!text.empty()) {
    // Nearly always all of it.
    const auto odd = std::find_if(text.begin(), text.end(), [](char byte) {
      const auto value = static_cast<unsigned char>(byte);
      return value < 0x20 || value == 0x7f;
    });
    const auto plain = static_cast<std::size_t>(odd - text.begin());
    line.append(text.substr(0, plain));
    text.remove_prefix(plain);
    if (text.empty()) return;
    const auto value = static_cast<unsigned char>(text.front());
    text.remove_prefix(1);
    line += "\\x";
    line += kDigits[value >> 4];
    line += kDigits[value & 15];
  }
}

}  // namespace zr
