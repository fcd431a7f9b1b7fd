#pragma once
// A job that ends when nothing happens for too long. Connections and servers are such jobs; the
// transceiver's housekeeper asks them.

#include <atomic>
#include <cstdint>

#include "jobs/deadline.h"
#include "jobs/job.h"

/// A job with a restartable time limit. Threads: any.
class ZrJobWithTimeout : public ZrJob {
 public:
  /// The limit in microseconds starts to run now. The clock is not owned and outlives the job.
  explicit ZrJobWithTimeout(std::uint64_t timeLimitUs, const ZrClock& clock = ZrClock::System());

  /// Something happened: the limit starts anew. Without effect between an expiry that was reported
  /// and the next HasExpired().
  virtual void Touch();
  /// Yes once when the limit has passed. The call after that answers no and arms the report again
  /// without restarting the limit.
  virtual bool HasExpired();

  /// The time limit in microseconds.
  std::uint64_t TimeLimitUs() const noexcept { return timeLimit_; }
  /// No from the report of an expiry until the next HasExpired().
  bool Timing() const noexcept { return timing_.load(); }
  /// The monotonic clock reading, in nanoseconds, at which the limit passes if nothing happens.
  std::int64_t ExpiryNs() const { return deadline_.ExpiryNs(); }

 protected:
  /// Ends the time limit until the next HasExpired().
  void StopTiming() noexcept { timing_.store(false); }

  ZrRecursiveMutex timeoutLock_;  ///< for the use of derived classes

 private:
  const std::uint64_t timeLimit_;  // microseconds
  ZrDeadline deadline_;
  std::atomic<bool> timing_{true};
};
