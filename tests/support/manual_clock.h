#pragma once
// A clock that stands still until the test moves it, so that limits of minutes take no time.

#include <atomic>
#include <chrono>
#include <cstdint>

#include "platform/clock.h"

namespace zrtest {

/// Both times at once; may be moved while other threads read it.
class ManualClock : public ZrClock {
 public:
  explicit ManualClock(std::int64_t systemTicks = 0) : systemTicks_(systemTicks) {}
  std::int64_t MonotonicNs() const override { return monotonicNs_; }
  std::int64_t SystemTicks() const override { return systemTicks_; }

  /// Time passes.
  void Advance(std::chrono::nanoseconds step) {
    monotonicNs_ += step.count();
    systemTicks_ += step.count() / 100;
  }
  /// Somebody sets the calendar clock.
  void SetSystemTicks(std::int64_t ticks) { systemTicks_ = ticks; }

 private:
  std::atomic<std::int64_t> monotonicNs_{1'000'000'000};
  std::atomic<std::int64_t> systemTicks_;
};

}  // namespace zrtest
