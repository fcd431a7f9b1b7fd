#pragma once
// Unique names. Every job and every joined task gets one; they are the addresses by which jobs
// find each other.

#include <cstdint>
#include <string>
#include <string_view>

#include "platform/clock.h"
#include "platform/sync.h"

/// Makes names that never repeat: the prefix, "*", the microseconds in 7 digits, the seconds since
/// 1970 in 11 digits. Each source counts microseconds of its own: a name takes the current one or,
/// when that has been given out or the clock was set back, the next free one. So nothing sleeps,
/// and names of one source are strictly increasing in time. Threads: any.
class ZrNamedIdSource {
 public:
  /// The prefix's text and the clock are not copied and outlive the source.
  explicit ZrNamedIdSource(std::string_view prefix, const ZrClock& clock = ZrClock::System())
      : prefix_(prefix), clock_(clock) {}
  ZrNamedIdSource(const ZrNamedIdSource&) = delete;
  ZrNamedIdSource& operator=(const ZrNamedIdSource&) = delete;

  /// A new name.
  std::string MakeName() ZR_EXCLUDES(lock_) { return MakeName(prefix_); }
  /// A new name of this source's sequence under another prefix.
  std::string MakeName(std::string_view prefix) ZR_EXCLUDES(lock_);

 private:
  std::int64_t NextMicrosecond() ZR_EXCLUDES(lock_);

  const std::string_view prefix_;
  const ZrClock& clock_;
  ZrMutex lock_;
  std::int64_t last_ ZR_GUARDED_BY(lock_) = -1;  // microseconds since 1970 of the last name
};
