#pragma once
// One thread's share of the connections, for one direction: a poller, and who stands behind its
// tokens. A connection stands in one lane of a direction at a time. Only the lane's own thread
// hands it over to another lane, between two passes, so that two threads never serve it at once.

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <unordered_map>
#include <vector>

#include "platform/poller.h"
#include "platform/sync.h"
#include "transceiver/io_registration.h"

/// Held in shared ownership, by registrations too. Threads: any; Wait() and HandOver() the lane's
/// own. What takes a registration expects the job lock of its connection held where it says so.
class ZrIoLane {
 public:
  using Registration = std::shared_ptr<ZrIoRegistration>;
  enum class Direction { kInput, kOutput };
  /// One that a pass is for.
  struct Ready {
    Registration registration;
    bool urgent = false;
    bool hangup = false;
  };

  explicit ZrIoLane(Direction direction) : direction_(direction) {}
  ZrIoLane(const ZrIoLane&) = delete;
  ZrIoLane& operator=(const ZrIoLane&) = delete;

  /// It stands there from now on, unwatched. No: that lane is closed. The connection's lock is
  /// held.
  static bool Enter(const std::shared_ptr<ZrIoLane>& lane, const Registration& registration);
  /// It stands in no lane any more. Its connection's lock is held, and its registration too.
  void Leave(ZrIoRegistration& registration);
  /// Watches its socket for that, and for nothing else any more. No: the system does not, and it is
  /// not watched. The connection's lock is held.
  bool Watch(ZrIoRegistration& registration, unsigned interest);
  void Unwatch(ZrIoRegistration& registration);
  /// The next wait reports it, whatever its socket says, and ends at once.
  void Report(std::uint64_t token) ZR_EXCLUDES(lock_);
  /// The same, for the lane's own thread, which is not waiting.
  void ReportNext(std::uint64_t token) ZR_EXCLUDES(lock_);
  void Wake() noexcept { poller_.Wake(); }

  /// Adds those that are ready; a limit below zero never passes. May throw std::bad_alloc: what was
  /// not added is reported again.
  void Wait(std::chrono::nanoseconds limit, std::vector<Ready>& ready) ZR_EXCLUDES(lock_);
  /// From here to there, when it stands here and that lane is open. The caller holds no lock. When
  /// it throws, nothing has changed.
  void HandOver(ZrIoRegistration& registration, const std::shared_ptr<ZrIoLane>& to);
  /// Those that stand here now.
  std::vector<Registration> All() ZR_EXCLUDES(lock_);
  /// While it is closed nobody enters.
  void Close(bool closed) ZR_EXCLUDES(lock_);

 private:
  ZrIoRegistration::Direction& Side(ZrIoRegistration& registration) const {
    return direction_ == Direction::kInput ? registration.input : registration.output;
  }

  const Direction direction_;
  ZrPoller poller_;

  ZrMutex lock_;  // held for look-ups and changes of the tables only
  std::unordered_map<std::uint64_t, Registration> byToken_ ZR_GUARDED_BY(lock_);
  std::vector<std::uint64_t> reported_ ZR_GUARDED_BY(lock_);
  std::atomic<bool> reports_{false};  // there are some
  bool closed_ ZR_GUARDED_BY(lock_) = false;
};
