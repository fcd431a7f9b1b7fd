#pragma once
// Clocks. Whatever measures a time limit takes a ZrClock, so that a limit of minutes is tested in
// microseconds with a clock set by hand.

#include <cstdint>

/// Source of the two times that the system uses. Threads: any; implementations are thread-safe.
class ZrClock {
 public:
  virtual ~ZrClock() = default;

  /// Nanoseconds of a clock that never steps back; its zero point means nothing.
  virtual std::int64_t MonotonicNs() const = 0;
  /// The calendar time in units of 100 nanoseconds since 1970-01-01 00:00 UTC. May step when the
  /// machine's clock is set.
  virtual std::int64_t SystemTicks() const = 0;

  /// The machine's clocks. The object is never destroyed: threads that outlive main() may use it.
  static const ZrClock& System() noexcept;
};
