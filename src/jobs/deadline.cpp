#include "jobs/deadline.h"

#include <limits>

namespace {

constexpr std::int64_t kForever = std::numeric_limits<std::int64_t>::max();

// Limits beyond 292 years stand for "never".
std::int64_t Nanoseconds(std::uint64_t microseconds) {
  return microseconds > static_cast<std::uint64_t>(kForever / 1000)
             ? kForever
             : static_cast<std::int64_t>(microseconds * 1000);
}

std::int64_t ExpiryOf(std::int64_t start, std::uint64_t limitUs) {
  const std::int64_t limit = Nanoseconds(limitUs);
  return start > kForever - limit ? kForever : start + limit;
}

}  // namespace

ZrDeadline::ZrDeadline(std::uint64_t limitUs, const ZrClock& clock)
    : clock_(clock), expiry_(ExpiryOf(clock.MonotonicNs(), limitUs)) {}

void ZrDeadline::Restart(std::uint64_t limitUs) {
  expiry_.store(ExpiryOf(clock_.MonotonicNs(), limitUs), std::memory_order_relaxed);
}

bool ZrDeadline::Expired() const { return clock_.MonotonicNs() >= ExpiryNs(); }

std::int64_t ZrDeadline::ExpiryNs() const { return expiry_.load(std::memory_order_relaxed); }
