#include "transceiver/connection_limits.h"

#include <algorithm>

#include "http/semantics.h"

void ZrConnectionLimits::BeginHead(const ZrSemantics* rules) {
  rules_.store(rules, std::memory_order_relaxed);
  std::int64_t none = 0;
  if (headSince_.load(std::memory_order_relaxed) == 0)
    headSince_.compare_exchange_strong(none, clock_.MonotonicNs());
}

void ZrConnectionLimits::NoteBody(const ZrSemantics& rules, std::uint64_t arrived,
                                  std::uint64_t held) {
  rules_.store(&rules, std::memory_order_relaxed);
  bodyHeld_.store(held, std::memory_order_relaxed);
  bodyTime_ = BodyTime(arrived);
  if (bodySince_.load(std::memory_order_relaxed) == 0) bodySince_ = clock_.MonotonicNs();
}

std::int64_t ZrConnectionLimits::BodyTime(std::uint64_t bytes) {
  constexpr std::int64_t kSecond = 1'000'000'000;
  return std::max(kBodyTimeLimit, static_cast<std::int64_t>(bytes) / kBodyRate * kSecond);
}

void ZrConnectionLimits::EndBody() {
  bodySince_.store(0, std::memory_order_relaxed);
  bodyHeld_.store(0, std::memory_order_relaxed);
  late_.store(false, std::memory_order_relaxed);
}

std::int64_t ZrConnectionLimits::DueNs() const {
  std::int64_t due = kNever;
  if (const std::int64_t head = headSince_; head != 0) due = head + kHeadTimeLimit;
  if (const std::int64_t body = bodySince_; body != 0) due = std::min(due, body + bodyTime_);
  if (const std::int64_t linger = lingerUntil_; linger != 0) due = std::min(due, linger);
  return due;
}

bool ZrConnectionLimits::MarkLate() {
  const ZrSemantics* const rules = rules_;
  if (rules == nullptr || !rules->IsStandard() || (headSince_ == 0 && bodySince_ == 0))
    return false;
  EndHead();
  EndBody();
  late_ = true;
  return true;
}
