#include "base/number.h"

#include <charconv>
#include <limits>
#include <stdexcept>

namespace zr {

std::optional<std::uint64_t> ParseDigits(std::string_view text) {
  std::uint64_t value = 0;
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, value);
  if (text.empty() || error != std::errc() || stop != end) return std::nullopt;
  return value;
}

std::uint32_t ParseUnsignedLong(std::string_view text) {
  const std::size_t start = text.find_first_not_of(" \t\n\v\f\r");
  text.remove_prefix(start == std::string_view::npos ? text.size() : start);
  const bool negative = !text.empty() && text.front() == '-';
  if (negative || (!text.empty() && text.front() == '+')) text.remove_prefix(1);
  std::uint32_t value = 0;
  const auto result = std::from_chars(text.data(), text.data() + text.size(), value);
  if (result.ec == std::errc::invalid_argument)
    throw std::invalid_argument("invalid stoul argument");
  if (result.ec == std::errc::result_out_of_range)
    throw std::out_of_range("stoul argument out of range");
  return negative ? std::uint32_t{0} - value : value;
}

namespace {

// Takes blanks and a "+" off the front, which from_chars does not know. A "+" before another sign
// stays, so that it reads as no number.
std::string_view WithoutBlanksAndPlus(std::string_view text) {
  const std::size_t start = text.find_first_not_of(" \t\n\v\f\r");
  text.remove_prefix(start == std::string_view::npos ? text.size() : start);
  if (text.size() > 1 && text[0] == '+' && text[1] != '-') text.remove_prefix(1);
  return text;
}

}  // namespace

double ParseDouble(std::string_view text) {
  text = WithoutBlanksAndPlus(text);
  const bool negative = !text.empty() && text.front() == '-';
  if (negative) text.remove_prefix(1);
  // The sign is off; another one would read as part of the number.
  double value = 0;
  std::from_chars_result result{text.data(), std::errc::invalid_argument};
  if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
    result =
        std::from_chars(text.data() + 2, text.data() + text.size(), value, std::chars_format::hex);
  }
  // "0x" without digits is the number 0 and a rest.
  if (result.ec == std::errc::invalid_argument && !text.empty() && text.front() != '-')
    result = std::from_chars(text.data(), text.data() + text.size(), value);
  if (result.ec == std::errc::invalid_argument)
    throw std::invalid_argument("invalid stod argument");
  if (result.ec == std::errc::result_out_of_range)
    throw std::out_of_range("stod argument out of range");
  return negative ? -value : value;
}

std::optional<std::int64_t> ParseLeadingInteger(std::string_view text) {
  text = WithoutBlanksAndPlus(text);
  std::int64_t value = 0;
  const auto result = std::from_chars(text.data(), text.data() + text.size(), value);
  if (result.ec != std::errc()) return std::nullopt;
  return value;
}

std::string FormatGeneral(double value) {
  char buffer[64];
  const auto result =
      std::to_chars(buffer, buffer + sizeof buffer, value, std::chars_format::general, 6);
  return std::string(buffer, result.ptr);
}

}  // namespace zr
