#include "platform/time_text.h"

#include <string.h>
#include <time.h>

#include <cstdio>

namespace zr {
namespace {

constexpr const char* kDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
constexpr const char* kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                   "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

// Plain memory without a destructor: a thread that ends needs nothing of this library.
struct Cached {
  std::int64_t seconds;
  int size;
  char text[64];
};
thread_local Cached cached{-1, 0, {}};

}  // namespace

std::string_view LocalTime(std::int64_t secondsSince1970) {
  if (cached.size == 0 || cached.seconds != secondsSince1970) {
    tm parts{};
    auto seconds = static_cast<time_t>(secondsSince1970);
    if (::localtime_r(&seconds, &parts) == nullptr) {
      seconds = 0;
      ::localtime_r(&seconds, &parts);
    }
    cached.size = std::snprintf(cached.text, sizeof cached.text, "%s %s %2d %02d:%02d:%02d %ld",
                                kDays[parts.tm_wday], kMonths[parts.tm_mon], parts.tm_mday,
                                parts.tm_hour, parts.tm_min, parts.tm_sec, 1900L + parts.tm_year);
    cached.seconds = secondsSince1970;
  }
  return {cached.text, static_cast<std::size_t>(cached.size)};
}

std::string LocalTimeText(std::int64_t secondsSince1970) {
  return std::string(LocalTime(secondsSince1970));
}

}  // namespace zr
