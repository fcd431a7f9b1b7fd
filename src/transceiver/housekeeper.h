#pragma once
// Time limits. A thread of its own sleeps until the earliest time at which something can expire,
// has its owner look at what is due, and puts what has had traffic since at its next time. It also
// ends servers that lost their last owner where that owner must not wait for them.

#include <cstdint>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/clock.h"
#include "platform/sync.h"
#include "platform/thread.h"
#include "transceiver/fwd.h"

/// Owned by the transceiver. Threads: any, but for Start() and End(), which are the owner's.
class ZrHousekeeper {
 public:
  /// A time (monotonic, nanoseconds) that never comes.
  static constexpr std::int64_t kNever = std::numeric_limits<std::int64_t>::max();
  /// Looking at many connections together is cheaper than at each in its own moment (nanoseconds).
  static constexpr std::int64_t kGrain = 250'000'000;

  /// What is done on the housekeeper's thread, with no lock held.
  struct Duties {
    /// The connection can have expired. Who finds that it has not watches it again.
    std::function<void(const std::shared_ptr<ZrTransceiverConnection>&)> checkConnection;
    /// A server can have expired. Answers the time of the next such look.
    std::function<std::int64_t()> checkServers;
    /// Memory is short. Answers the time of the next such look, kNever when it is no more.
    std::function<std::int64_t()> checkMemory;
  };

  /// The clock outlives the housekeeper.
  explicit ZrHousekeeper(const ZrClock& clock) : clock_(clock) {}
  ZrHousekeeper(const ZrHousekeeper&) = delete;
  ZrHousekeeper& operator=(const ZrHousekeeper&) = delete;

  /// Throws std::system_error when the system gives no thread.
  void Start(Duties duties) ZR_EXCLUDES(lock_);
  /// Runs what EndLater() was given and ends the thread.
  void End() ZR_EXCLUDES(lock_);

  /// Looks at the connection when it can have expired.
  void Watch(const std::shared_ptr<ZrTransceiverConnection>& connection) ZR_EXCLUDES(lock_);
  /// Its next expiry is nearer than it was.
  void Hasten(ZrTransceiverConnection& connection) ZR_EXCLUDES(lock_);
  void Forget(const ZrTransceiverConnection& connection) ZR_EXCLUDES(lock_);
  /// Looks at all servers at that time, or earlier.
  void WatchServers(std::int64_t due) ZR_EXCLUDES(lock_);
  /// Memory is short: looks at that at that time, or earlier.
  void WatchMemory(std::int64_t due) ZR_EXCLUDES(lock_);
  /// Runs `end` on the housekeeper's thread. No: it does not run any more, the caller does it.
  bool EndLater(std::function<void()> end) ZR_EXCLUDES(lock_);
  /// Looks at all time limits now (after a clock was set by hand).
  void Wake() ZR_EXCLUDES(lock_);

 private:
  using Place = std::pair<std::int64_t, const ZrTransceiverConnection*>;  // time first
  using Places = std::map<Place, std::weak_ptr<ZrTransceiverConnection>>;
  struct Work {
    std::vector<std::function<void()>> endings;
    std::vector<std::shared_ptr<ZrTransceiverConnection>> connections;
    bool servers = false;
    bool memory = false;
    bool goOn = true;
  };

  void Loop() ZR_EXCLUDES(lock_);
  void Wait() ZR_REQUIRES(lock_);
  Work TakeDue() ZR_REQUIRES(lock_);
  std::int64_t Due() const ZR_REQUIRES(lock_);

  const ZrClock& clock_;
  Duties duties_;  // constant once started

  ZrMutex lock_;
  ZrCondition wake_;  // one of the following changed
  bool alive_ ZR_GUARDED_BY(lock_) = true;
  bool lookNow_ ZR_GUARDED_BY(lock_) = false;
  std::vector<std::function<void()>> endings_ ZR_GUARDED_BY(lock_);
  // Each connection stands in the list once, at a time at which it cannot have expired earlier; it
  // is looked at then and put at its next time, so that traffic costs nothing here.
  Places places_ ZR_GUARDED_BY(lock_);
  std::unordered_map<const ZrTransceiverConnection*, Places::iterator> placeOf_
      ZR_GUARDED_BY(lock_);
  std::int64_t serversDue_ ZR_GUARDED_BY(lock_) = kNever;
  std::int64_t memoryDue_ ZR_GUARDED_BY(lock_) = kNever;

  ZrThread thread_;  // ends before the members that it uses
};
