#pragma once
// A restartable time limit on the monotonic clock. Connections and servers measure their silence
// with one each.

#include <atomic>
#include <cstdint>

#include "platform/clock.h"

/// The end of a time limit. A restart is one atomic store, as every piece of traffic does one.
/// Threads: any.
class ZrDeadline {
 public:
  /// Starts now with a limit in microseconds. The clock is not owned and outlives the deadline.
  explicit ZrDeadline(std::uint64_t limitUs, const ZrClock& clock = ZrClock::System());

  /// Starts anew, now, with this limit in microseconds.
  void Restart(std::uint64_t limitUs);
  /// Whether the limit has passed since the start; a limit of 0 has passed at once.
  bool Expired() const;
  /// The clock reading, in nanoseconds, from which on Expired() answers yes.
  std::int64_t ExpiryNs() const;

 private:
  const ZrClock& clock_;
  std::atomic<std::int64_t> expiry_;  // nanoseconds; start and length are only needed as their sum
};
