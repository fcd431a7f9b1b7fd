#pragma once
// A job's own lock: recursive, try-lockable, and able to tell the registry when it comes free.
//
// An event is delivered with the receiver's lock held. When the lock is busy, the registry parks
// the receiver's events here and goes on with those of other jobs; the unlock that frees the lock
// hands them back. So a busy job delays only its own events and nobody polls.

#include <atomic>
#include <cstdint>
#include <memory>

#include "platform/sync.h"

struct ZrJobLink;

/// Recursive mutex of one job. Works with ZrLock and ZrLockBoth. Threads: any.
class ZR_CAPABILITY("mutex") ZrJobLock {
 public:
  ZrJobLock() = default;
  ~ZrJobLock();
  ZrJobLock(const ZrJobLock&) = delete;
  ZrJobLock& operator=(const ZrJobLock&) = delete;

  void lock() ZR_ACQUIRE();
  bool try_lock() ZR_TRY_ACQUIRE(true);
  /// Takes the registry's lock when events wait for this one.
  void unlock() ZR_RELEASE();

 private:
  friend class ZrJobRegistry;

  /// Takes the lock only when nobody holds it, the calling thread included. Otherwise keeps the
  /// link, which the last unlock gives back to the registry, and answers no.
  bool TryLockOrPark(const std::shared_ptr<ZrJobLink>& link) ZR_TRY_ACQUIRE(true);
  static std::uintptr_t Self() noexcept;
  bool TakeFree(std::uintptr_t word) noexcept;
  bool MarkAwaited() ZR_REQUIRES(state_);
  void LockSlowly(std::uintptr_t self) ZR_EXCLUDES(state_);
  void UnlockSlowly() ZR_EXCLUDES(state_);

  // The holder's mark, 0 while the lock is free; with kAwaited the unlock has to take the slow way.
  std::atomic<std::uintptr_t> word_{0};
  unsigned depth_ = 0;  // the holder's

  ZrMutex state_;     // of the slow ways; guards what follows, held for a few instructions only
  ZrCondition free_;  // word_ became 0
  std::atomic<bool> awaited_{false};  // it was, once
  unsigned waiters_ ZR_GUARDED_BY(state_) = 0;
  std::shared_ptr<ZrJobLink> parked_ ZR_GUARDED_BY(state_);
};
