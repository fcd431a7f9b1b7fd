#include "jobs/job_lock.h"

#include <utility>

#include "jobs/job_registry.h"

// Nearly always nobody else wants the lock: it is one exchange of a word then, and another one to
// give it back. Whoever finds it held sets kAwaited in the word, with the mutex held, which makes
// the holder's unlock take the mutex, too: it finds there who waits, and the link that was parked.
// What an unlock has to look at behind the release is read before another thread can take the lock
// and destroy the job with it; the destructor waits for an unlock that has the mutex still.

namespace {

constexpr std::uintptr_t kAwaited = 1;

// Its address is the thread's mark. Initial-exec: see ZrJobRegistry's delivery.
[[gnu::tls_model("initial-exec")]] thread_local const std::uintptr_t mark = 0;

}  // namespace

std::uintptr_t ZrJobLock::Self() noexcept { return reinterpret_cast<std::uintptr_t>(&mark); }

ZrJobLock::~ZrJobLock() {
  if (awaited_.load(std::memory_order_acquire)) const ZrLock hold(state_);
}

bool ZrJobLock::TakeFree(std::uintptr_t word) noexcept {
  std::uintptr_t none = 0;
  if (!word_.compare_exchange_strong(none, word, std::memory_order_acquire,
                                     std::memory_order_relaxed))
    return false;
  depth_ = 1;
  return true;
}

// No: the lock came free meanwhile.
bool ZrJobLock::MarkAwaited() {
  awaited_.store(true, std::memory_order_relaxed);
  std::uintptr_t word = word_.load(std::memory_order_relaxed);
  while (word != 0)
    if (word_.compare_exchange_weak(word, word | kAwaited, std::memory_order_relaxed)) return true;
  return false;
}

void ZrJobLock::lock() {
  const std::uintptr_t self = Self();
  if (TakeFree(self)) return;
  if ((word_.load(std::memory_order_relaxed) & ~kAwaited) == self)
    ++depth_;
  else
    LockSlowly(self);
}

void ZrJobLock::LockSlowly(std::uintptr_t self) {
  const ZrLock hold(state_);
  ++waiters_;
  for (;;) {
    // With others waiting, or a link parked, this holder's unlock goes the slow way again.
    if (TakeFree(waiters_ > 1 || parked_ ? self | kAwaited : self)) break;
    if (!MarkAwaited()) continue;
    // Free, or taken by somebody who does not know that his unlock is awaited.
    free_.Wait(state_, [this] { return (word_.load(std::memory_order_relaxed) & kAwaited) == 0; });
  }
  --waiters_;
}

bool ZrJobLock::try_lock() {
  const std::uintptr_t self = Self();
  if (TakeFree(self)) return true;
  if ((word_.load(std::memory_order_relaxed) & ~kAwaited) != self) return false;
  ++depth_;
  return true;
}

bool ZrJobLock::TryLockOrPark(const std::shared_ptr<ZrJobLink>& link) {
  const std::uintptr_t self = Self();
  if (TakeFree(self)) return true;
  const ZrLock hold(state_);
  while (!MarkAwaited())
    if (TakeFree(waiters_ > 0 ? self | kAwaited : self)) return true;
  parked_ = link;
  return false;
}

void ZrJobLock::unlock() {
  if (--depth_ > 0) return;
  std::uintptr_t word = Self();
  if (!word_.compare_exchange_strong(word, 0, std::memory_order_release, std::memory_order_relaxed))
    UnlockSlowly();
}

void ZrJobLock::UnlockSlowly() {
  std::shared_ptr<ZrJobLink> parked;
  {
    const ZrLock hold(state_);
    parked = std::move(parked_);
    if (waiters_ > 0) free_.NotifyOne();
    word_.store(0, std::memory_order_release);
  }
  // The job may be gone by now.
  if (parked) ZrJobRegistry::Instance().Resume(parked);
}
