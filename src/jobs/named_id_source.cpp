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

}  // namespace

std::int64_t ZrNamedIdSource::NextMicrosecond() {
  const ZrLock hold(lock_);
  last_ = std::max(clock_.SystemTicks() / 10, last_ + 1);
  return last_;
}

std::string ZrNamedIdSource::MakeName(std::string_view prefix) {
  const std::int64_t now = NextMicrosecond();
  const std::size_t digits = prefix.size() + 1;
  std::string name(digits + kMicrosecondDigits + kSecondDigits, '0');
  prefix.copy(name.data(), prefix.size());
  name[prefix.size()] = '*';
  char* const microsecondsEnd = name.data() + digits + kMicrosecondDigits;
  PutDigits(microsecondsEnd, now % kMicrosecondsPerSecond);
  PutDigits(microsecondsEnd + kSecondDigits, now / kMicrosecondsPerSecond);
  return name;
}
