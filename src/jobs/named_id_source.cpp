#include "jobs/named_id_source.h"

#include <algorithm>

namespace {

constexpr std::int64_t kMicrosecondsPerSecond = 1'000'000;
constexpr std::size_t kMicrosecondDigits = 7;
constexpr std::size_t kSecondDigits = 11;

// Writes the number's digits so that the last one stands before `end`; `end` lies behind zeros.
void PutDigits(char* end, std::int64_t number) {
  for (; number > 0; number /= 10) *--end = static_cast<char>('0' + number % 10);
}

// Nothing for anything but digits.
std::optional<std::int64_t> ReadDigits(std::string_view digits) {
  std::int64_t number = 0;
  for (const char c : digits) {
    if (c < '0' || c > '9') return std::nullopt;
    number = number * 10 + (c - '0');
  }
  return number;
}

}  // namespace

std::int64_t ZrNamedIdSource::MakeNumber() {
  const std::int64_t now = clock_.SystemTicks() / 10;
  std::int64_t last = last_.load(std::memory_order_relaxed);
  while (!last_.compare_exchange_weak(last, std::max(now, last + 1), std::memory_order_relaxed)) {
  }
  return std::max(now, last + 1);
}

std::string ZrNamedIdSource::NameOf(std::string_view prefix, std::int64_t number) {
  const std::size_t digits = prefix.size() + 1;
  std::string name(digits + kMicrosecondDigits + kSecondDigits, '0');
  prefix.copy(name.data(), prefix.size());
  name[prefix.size()] = '*';
  char* const microsecondsEnd = name.data() + digits + kMicrosecondDigits;
  PutDigits(microsecondsEnd, number % kMicrosecondsPerSecond);
  PutDigits(microsecondsEnd + kSecondDigits, number / kMicrosecondsPerSecond);
  return name;
}

std::optional<std::int64_t> ZrNamedIdSource::NumberOf(std::string_view prefix,
                                                      std::string_view name) {
  const std::size_t digits = prefix.size() + 1;
  if (name.size() != digits + kMicrosecondDigits + kSecondDigits || !name.starts_with(prefix) ||
      name[prefix.size()] != '*')
    return std::nullopt;
  const auto microseconds = ReadDigits(name.substr(digits, kMicrosecondDigits));
  const auto seconds = ReadDigits(name.substr(digits + kMicrosecondDigits));
  if (!microseconds || !seconds || *microseconds >= kMicrosecondsPerSecond) return std::nullopt;
  return *seconds * kMicrosecondsPerSecond + *microseconds;
}

bool ZrNamedIdSource::NameStandsBefore(std::int64_t first, std::int64_t second) {
  const std::int64_t a = first % kMicrosecondsPerSecond;
  const std::int64_t b = second % kMicrosecondsPerSecond;
  return a != b ? a < b : first < second;
}
