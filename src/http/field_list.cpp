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
  const auto isBlank = [](char c) { return c == ' ' || c == '\t'; };
  while (!text.empty() && isBlank(text.front())) text.remove_prefix(1);
  while (!text.empty() && isBlank(text.back())) text.remove_suffix(1);
  return text;
}

bool zr::HasListElement(const ZrHeaderFields::Values& values, std::string_view lower) {
  return !AllListElements(
      values, [lower](std::string_view element) { return !EqualsIgnoringCase(element, lower); });
}
