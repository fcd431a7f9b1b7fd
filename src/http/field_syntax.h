#pragma once
// What the names and values of fields are made of (RFC 9110, 5.5 and 5.6.2).

#include <algorithm>
#include <array>
#include <cstdint>
#include <string_view>

#include "base/byte_words.h"

namespace zr {

/// For each byte: itself in lower case when it can stand in a token, else NUL.
inline constexpr std::array<char, 256> kTokenBytes = [] {
  std::array<char, 256> table{};
  for (const char c : std::string_view("0123456789abcdefghijklmnopqrstuvwxyz!#$%&'*+-.^_`|~"))
    table[static_cast<unsigned char>(c)] = c;
  for (char c = 'A'; c <= 'Z'; ++c)
    table[static_cast<unsigned char>(c)] = static_cast<char>(c | 0x20);
  return table;
}();

/// The byte of a token in lower case; NUL for one that no token has.
constexpr char LowerTokenByte(char c) { return kTokenBytes[static_cast<unsigned char>(c)]; }
constexpr bool IsTokenByte(char c) { return LowerTokenByte(c) != '\0'; }

/// Whether the text is a token: a method, a name of a field.
constexpr bool IsToken(std::string_view text) {
  return !text.empty() && std::all_of(
                              text.begin(), text.end(), [](char c) { return IsTokenByte(c); });
}

/// Whether the text can be the value of a field: without NUL, CR and LF.
inline bool IsFieldValue(std::string_view text) {
  // Nearly always it has no control byte at all.
  if (AllWords(text, [](std::uint64_t word) { return !AnyBelow(word, ' '); })) return true;
  return text.find('\0') == std::string_view::npos && text.find('\r') == std::string_view::npos &&
         text.find('\n') == std::string_view::npos;
}

}  // namespace zr
