#pragma once
// What a serving program waits for. A thread of its own takes the signals, so that a second one
// ends the process whatever its other threads hang in.

#include <atomic>
#include <deque>
#include <functional>

#include "base/server_callback.h"
#include "platform/signals.h"
#include "platform/sync.h"
#include "platform/thread.h"

namespace zr::cli {

/// Made before every other thread. Threads: Next() and OnHurry() belong to the one that made it.
class ServeEvents {
 public:
  struct Event {
    enum class Kind { kStop, kReopen, kReport } kind = Kind::kStop;
    ZrServerCallback_t report = {};  ///< of a server
  };

  /// SIGHUP is taken when there is something to open again, and else does what it does everywhere.
  explicit ServeEvents(bool reopens);
  ~ServeEvents();
  ServeEvents(const ServeEvents&) = delete;
  ServeEvents& operator=(const ServeEvents&) = delete;

  /// For the servers' threads: adds reports of ports that are listened on, or cannot be.
  void Tell(const ZrServerCallback_t& report) ZR_EXCLUDES(lock_);
  /// Waits for the next event, the oldest first. There is one kStop: the first of its signals.
  Event Next() ZR_EXCLUDES(lock_);
  /// What a second stop signal calls, on the thread of the signals. The process then has a moment
  /// to end in order, killing what it runs; a third signal does not wait for that.
  void OnHurry(std::function<void()> call) ZR_EXCLUDES(lock_);

 private:
  void Add(Event event) ZR_EXCLUDES(lock_);
  void WatchSignals() ZR_EXCLUDES(lock_);
  void Hurry() ZR_EXCLUDES(lock_);

  ZrSignalWaiter signals_;
  ZrMutex lock_;
  ZrCondition came_;  // events_ grew
  std::deque<Event> events_ ZR_GUARDED_BY(lock_);
  std::function<void()> hurry_ ZR_GUARDED_BY(lock_);  // called with the lock held: it takes none
  std::atomic<bool> over_{false};                     // set before the wake that ends thread_
  ZrThread thread_;
};

}  // namespace zr::cli
