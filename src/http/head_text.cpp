#include "http/head_text.h"

#include <charconv>

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
