#include "http/head_text.h"

#include <charconv>

void zr::HeadText::AddField(std::string_view name, std::string_view value) {
  bool begins = true;
  for (const char c : name) {
    Add(begins && c >= 'a' && c <= 'z' ? static_cast<char>(c & ~0x20) : c);
    begins = c == '-';
  }
  Add(": ");
  Add(value);
  Add("\r\n");
}

void zr::HeadText::AddWithoutLineEnds(std::string_view text) {
  for (const char c : text)
    if (c != '\r' && c != '\n') Add(c);
}

void zr::AppendText(ZrStringBuf& out, std::string_view text) {
  while (!text.empty()) {
    const std::size_t bad = text.find_first_of("\r\n");
    out.Append(text.substr(0, bad));
    text.remove_prefix(bad == std::string_view::npos ? text.size() : bad + 1);
  }
}

std::string zr::WithoutLineEnds(std::string_view text) {
  std::string result(text);
  std::erase_if(result, [](char c) { return c == '\r' || c == '\n'; });
  return result;
}

void zr::AppendNumber(ZrStringBuf& out, std::uint64_t number) {
  char digits[20];
  const auto result = std::to_chars(digits, digits + sizeof digits, number);
  out.Append(std::string_view(digits, static_cast<std::size_t>(result.ptr - digits)));
}
