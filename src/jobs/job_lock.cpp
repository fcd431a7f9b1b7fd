#include "jobs/job_lock.h"

#include <utility>

#include "jobs/job_registry.h"

// The state stands under a mutex of its own instead of using a recursive mutex for the whole: what
// an unlock has to look at after the release, the parked link, must be read before another thread
// can take the lock and destroy the job with it.

void ZrJobLock::Take(std::thread::id self) {
  owner_ = self;
  depth_ = 1;
}

void ZrJobLock::lock() {
  const std::thread::id self = std::this_thread::get_id();
  const ZrLock hold(state_);
  if (owner_ == self) {
    ++depth_;
    return;
  }
  if (owner_ != std::thread::id()) {
    ++waiters_;
    free_.Wait(state_, [this]() ZR_REQUIRES(state_) { return owner_ == std::thread::id(); });
    --waiters_;
  }
  Take(self);
}

bool ZrJobLock::try_lock() {
  const std::thread::id self = std::this_thread::get_id();
  const ZrLock hold(state_);
  if (owner_ == self) {
    ++depth_;
    return true;
  }
  if (owner_ != std::thread::id()) return false;
  Take(self);
  return true;
}

bool ZrJobLock::TryLockOrPark(const std::shared_ptr<ZrJobLink>& link) {
  const ZrLock hold(state_);
  if (owner_ != std::thread::id()) {
    parked_ = link;
    return false;
  }
  Take(std::this_thread::get_id());
  return true;
}

void ZrJobLock::unlock() {
  std::shared_ptr<ZrJobLink> parked;
  {
    const ZrLock hold(state_);
    if (--depth_ > 0) return;
    owner_ = std::thread::id();
    parked = std::move(parked_);
    if (waiters_ > 0) free_.NotifyOne();
  }
  // The job may be gone by now.
  if (parked) ZrJobRegistry::Instance().Resume(parked);
}
