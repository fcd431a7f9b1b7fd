#pragma once
// Unique names. Every job and every joined task gets one; they are the addresses by which jobs
// find each other.

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/clock.h"

/// Makes names that never repeat: the prefix, "*", the microseconds in 7 digits, the seconds since
/// 1970 in 11 digits. Each source counts microseconds of its own: a name takes the current one or,
/// when that has been given out or the clock was set back, the next free one. So nothing sleeps,
/// and names of one source are strictly increasing in time. A name is a number in writing, the
/// microseconds since 1970: who has the number writes the name when it is asked for. Threads: any.
class ZrNamedIdSource {
 public:
  /// The prefix's text and the clock are not copied and outlive the source.
  explicit ZrNamedIdSource(std::string_view prefix, const ZrClock& clock = ZrClock::System())
      : prefix_(prefix), clock_(clock) {}
  ZrNamedIdSource(const ZrNamedIdSource&) = delete;
  ZrNamedIdSource& operator=(const ZrNamedIdSource&) = delete;

  /// A new name.
  std::string MakeName() { return MakeName(prefix_); }
  /// A new name of this source's sequence under another prefix.
  std::string MakeName(std::string_view prefix) { return NameOf(prefix, MakeNumber()); }
  /// The number of a new name.
  std::int64_t MakeNumber();

  /// The name of a number.
  static std::string NameOf(std::string_view prefix, std::int64_t number);
  /// The number of a name with that prefix; nothing when it is none.
  static std::optional<std::int64_t> NumberOf(std::string_view prefix, std::string_view name);
  /// Whether the name of the first stands before that of the second, in the order of bytes.
  static bool NameStandsBefore(std::int64_t first, std::int64_t second);

 private:
  const std::string_view prefix_;
  const ZrClock& clock_;
  std::atomic<std::int64_t> last_{-1};  // the number of the last name
};
