#pragma once
// How far an orderly stop has come: one thread waits until all requests in progress are answered,
// and everything that answers says that something went on.

#include <atomic>
#include <chrono>
#include <functional>

#include "platform/sync.h"

/// Threads: any; one waits at a time.
class ZrStopProgress {
 public:
  /// Waits until `busy` answers no; it is asked again whenever something went on, with no lock
  /// held. Answers whether that was so within the limit and before Abandon().
  bool WaitUntilIdle(std::chrono::nanoseconds limit, const std::function<bool()>& busy)
      ZR_EXCLUDES(lock_);
  /// The wait returns at once, now and later.
  void Abandon() ZR_EXCLUDES(lock_);
  /// An item ended, bytes were written or a connection went. Costs nothing while nobody waits.
  void Note() ZR_EXCLUDES(lock_) {
    if (waiting_) NoteWaited();
  }

 private:
  void NoteWaited() ZR_EXCLUDES(lock_);

  std::atomic<bool> waiting_{false};  // somebody has waited; stays set
  ZrMutex lock_;
  ZrCondition changed_;
  bool progressed_ ZR_GUARDED_BY(lock_) = false;
  bool abandoned_ ZR_GUARDED_BY(lock_) = false;
};
