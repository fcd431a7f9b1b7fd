#pragma once
// What the names and values of fields are made of (RFC 9110, 5.5 and 5.6.2).

#include <algorithm>
#include <string_view>

namespace zr {

constexpr bool IsTokenByte(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
         std::string_view("!#$%&'*+-.^_`|~").find(c) != std::string_view::npos;
}

/// Whether the text is a token: a method, a name of a field.
constexpr bool IsToken(std::string_view text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), IsTokenByte);
}

/// Whether the text can be the value of a field: without NUL, CR and LF.
constexpr bool IsFieldValue(std::string_view text) {
  return text.find_first_of(std::string_view("\0\r\n", 3)) == std::string_view::npos;
}

}  // namespace zr
