#include "base/memory_budget.h"

#include <algorithm>

#include "platform/system.h"

ZrMemoryBudget::ZrMemoryBudget(std::uint64_t limit, std::function<void()> onRoom)
    : limit_(limit), onRoom_(std::move(onRoom)) {}

std::uint64_t ZrMemoryBudget::DefaultLimit() {
  constexpr std::uint64_t kMost = std::uint64_t{1} << 30;
  return std::min(zr::MemorySize() / 4, kMost);
}

void ZrMemoryBudget::Release(std::uint64_t bytes) {
  const std::uint64_t before = used_.fetch_sub(bytes, std::memory_order_relaxed);
  if (before > limit_ && before - bytes <= limit_ && onRoom_) onRoom_();
}

ZrMemoryShare& ZrMemoryShare::operator=(ZrMemoryShare&& other) noexcept {
  if (this == &other) return *this;
  Set(0);
  budget_ = std::move(other.budget_);
  bytes_ = std::exchange(other.bytes_, 0);
  return *this;
}

void ZrMemoryShare::Set(std::uint64_t bytes) {
  const std::uint64_t before = std::exchange(bytes_, bytes);
  if (!budget_ || before == bytes) return;
  if (bytes > before)
    budget_->Add(bytes - before);
  else
    budget_->Release(before - bytes);
}
