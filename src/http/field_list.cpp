#include "http/field_list.h"

#include <algorithm>

bool zr::EqualsIgnoringCase(std::string_view text, std::string_view lower) {
  return std::equal(
      text.begin(), text.end(), lower.begin(), lower.end(),
      [](char a, char b) { return (a >= 'A' && a <= 'Z' ? static_cast<char>(a | 0x20) : a) == b; });
}

std::string zr::LowerCase(std::string_view text) {
  std::string lower(text);
  for (char& c : lower) c = c >= 'A' && c <= 'Z' ? static_cast<char>(c | 0x20) : c;
  return lower;
}

std::string_view zr::TrimBlanks(std::string_view text) {
  const std::size_t first = text.find_first_not_of(" \t");
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

bool zr::HasListElement(const ZrHeaderFields::Values& values, std::string_view lower) {
  return !AllListElements(
      values, [lower](std::string_view element) { return !EqualsIgnoringCase(element, lower); });
}
