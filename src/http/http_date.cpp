// Days are counted in the Gregorian calendar by the C++ library; nothing here asks for the time
// zone or the language of the host.

#include "http/http_date.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <limits>

#include "base/number.h"
#include "platform/clock.h"

namespace {

using std::chrono::days;
using std::chrono::seconds;
using std::chrono::sys_days;

constexpr std::array<std::string_view, 7> kDays = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
constexpr std::array<std::string_view, 12> kMonths = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                      "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
constexpr std::int64_t kTicksPerSecond = 10'000'000;
constexpr std::int64_t kFirst = -62'167'219'200;  // of the year 0
constexpr std::int64_t kLast = 253'402'300'799;   // of the year 9999
constexpr std::size_t kLength = 29;

void PutNumber(char* out, unsigned number, int digits) {
  for (int i = digits - 1; i >= 0; --i, number /= 10) out[i] = static_cast<char>('0' + number % 10);
}

void Put(char* out, std::int64_t time) {
  const seconds since(std::clamp(time, kFirst, kLast));
  const sys_days day(std::chrono::floor<days>(since));
  const std::chrono::year_month_day date(day);
  const std::chrono::hh_mm_ss clock(since - day.time_since_epoch());
  std::copy_n("Sun, 06 Nov 1994 08:49:37 GMT", kLength, out);
  kDays[std::chrono::weekday(day).c_encoding()].copy(out, 3);
  PutNumber(out + 5, static_cast<unsigned>(date.day()), 2);
  kMonths[static_cast<unsigned>(date.month()) - 1].copy(out + 8, 3);
  PutNumber(out + 12, static_cast<unsigned>(static_cast<int>(date.year())), 4);
  PutNumber(out + 17, static_cast<unsigned>(clock.hours().count()), 2);
  PutNumber(out + 20, static_cast<unsigned>(clock.minutes().count()), 2);
  PutNumber(out + 23, static_cast<unsigned>(clock.seconds().count()), 2);
}

/// Takes the text apart from its front; a failure makes all that follows fail.
class Scanner {
 public:
  explicit Scanner(std::string_view text) : rest_(text) {}
  bool Ok() const { return ok_; }
  bool AtEnd() const { return rest_.empty(); }

  void Skip(std::string_view text) {
    ok_ = ok_ && rest_.starts_with(text);
    if (ok_) rest_.remove_prefix(text.size());
  }
  bool Has(char c) const { return rest_.find(c) != std::string_view::npos; }
  int Number(std::size_t digits, bool blankFirst = false) {
    const bool blank = blankFirst && rest_.starts_with(' ');
    const std::string_view text = rest_.substr(0, digits).substr(blank ? 1 : 0);
    const auto number = zr::ParseDigits(text);
    ok_ = ok_ && number && rest_.size() >= digits;
    if (!ok_) return 0;
    rest_.remove_prefix(digits);
    return static_cast<int>(*number);
  }
  unsigned Month() {
    const auto found = std::find(kMonths.begin(), kMonths.end(), rest_.substr(0, 3));
    Skip(rest_.substr(0, 3));
    ok_ = ok_ && found != kMonths.end();
    return static_cast<unsigned>(found - kMonths.begin()) + 1;
  }
  /// The name of a day, short or long; which one it is says nothing new.
  void Day() {
    const std::size_t end = rest_.find_first_of(", ");
    ok_ = ok_ && end != std::string_view::npos && end >= 3 &&
          std::find(kDays.begin(), kDays.end(), rest_.substr(0, 3)) != kDays.end();
    if (ok_) rest_.remove_prefix(end);
  }
  seconds Clock() {
    const int hour = Number(2);
    Skip(":");
    const int minute = Number(2);
    Skip(":");
    const int second = Number(2);
    ok_ = ok_ && hour < 24 && minute < 60 && second <= 60;
    return seconds(hour * 3600 + minute * 60 + second);
  }

 private:
  std::string_view rest_;
  bool ok_ = true;
};

}  // namespace

std::string zr::HttpDate(std::int64_t time) {
  std::string text(kLength, '\0');
  Put(text.data(), time);
  return text;
}

std::string_view zr::HttpDateNow() {
  thread_local std::int64_t made = std::numeric_limits<std::int64_t>::min();
  thread_local std::array<char, kLength> text;
  const std::int64_t now = ZrClock::System().SystemTicks() / kTicksPerSecond;
  if (made != now) {
    Put(text.data(), now);
    made = now;
  }
  return {text.data(), text.size()};
}

std::optional<std::int64_t> zr::ParseHttpDate(std::string_view text) {
  Scanner scan(text);
  scan.Day();
  int year = 0;
  unsigned month = 0;
  int day = 0;
  seconds clock{};
  if (!scan.Has(',')) {  // Sun Nov  6 08:49:37 1994
    scan.Skip(" ");
    month = scan.Month();
    scan.Skip(" ");
    day = scan.Number(2, true);
    scan.Skip(" ");
    clock = scan.Clock();
    scan.Skip(" ");
    year = scan.Number(4);
  } else {
    const bool old = scan.Has('-');  // Sunday, 06-Nov-94 08:49:37 GMT
    const std::string_view between = old ? "-" : " ";
    scan.Skip(", ");
    day = scan.Number(2);
    scan.Skip(between);
    month = scan.Month();
    scan.Skip(between);
    year = scan.Number(old ? 2 : 4);
    if (old) year += year < 70 ? 2000 : 1900;
    scan.Skip(" ");
    clock = scan.Clock();
    scan.Skip(" GMT");
  }
  if (!scan.Ok() || !scan.AtEnd()) return std::nullopt;
  const std::chrono::year_month_day date(std::chrono::year(year), std::chrono::month(month),
                                         std::chrono::day(static_cast<unsigned>(day)));
  if (!date.ok()) return std::nullopt;
  return (sys_days(date).time_since_epoch() + clock) / seconds(1);
}
