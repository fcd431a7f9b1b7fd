#pragma once
// Text without what stands around it.

#include <string_view>

namespace zr {

/// The text without those characters at its front and at its end; views the same bytes.
constexpr std::string_view Trim(std::string_view text, std::string_view characters = " ") {
  const std::size_t first = text.find_first_not_of(characters);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(characters) + 1 - first);
}

}  // namespace zr
