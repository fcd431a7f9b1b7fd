#pragma once
// Readiness of many descriptors for one thread: the I/O jobs of a transceiver and other long-lived
// loops wait here. It has no limit on the number of descriptors, a wait costs time linear in the
// ready ones, and any thread can end a wait. Level-triggered: what is not handled is reported
// again.

#include <atomic>
#include <chrono>
#include <cstdint>
#include <span>
#include <vector>

#include "platform/descriptor.h"

/// What is waited for; combine with |. With kNone only a broken connection is reported, and that
/// over and over: take the descriptor out when hangup was seen.
namespace ZrInterest {
inline constexpr unsigned kNone = 0;
inline constexpr unsigned kRead = 1;    ///< Bytes, a waiting peer, the end of the stream.
inline constexpr unsigned kWrite = 2;   ///< Room for output.
inline constexpr unsigned kUrgent = 4;  ///< Out-of-band data.
}  // namespace ZrInterest

/// One ready descriptor.
struct ZrReadiness {
  std::uint64_t token = 0;  ///< As given to Add().
  bool readable = false;
  bool writable = false;
  bool urgent = false;
  /// Both directions are down or the descriptor failed; reported whatever was asked for. What had
  /// arrived before can still be read.
  bool hangup = false;
};

/// A set of descriptors and a wake-up. Threads: Add, Remove and Wake from any; Wait from
/// one at a time. Descriptors are not owned: Remove() before closing one. Those of the poller
/// itself are close-on-exec. EINTR is retried with the time that is left.
class ZrPoller {
 public:
  /// Throws std::system_error when the process has no descriptors left for it.
  ZrPoller();
  ZrPoller(const ZrPoller&) = delete;
  ZrPoller& operator=(const ZrPoller&) = delete;
  ~ZrPoller() = default;

  /// Watches a descriptor. No: it is watched already, is no socket or pipe, or the system's
  /// limits are reached. The highest token is kept for the wake-up.
  [[nodiscard]] bool Add(int descriptor, std::uint64_t token, unsigned interest);
  /// Stops watching; unknown descriptors are ignored. A wait that is returning at this moment may
  /// still report the token once.
  void Remove(int descriptor);

  /// Waits until something is ready, Wake() was called or the limit has passed (negative: for ever;
  /// rounded up to a millisecond). The result is empty after a time-out and after a wake-up alone;
  /// it is valid until the next Wait().
  std::span<const ZrReadiness> Wait(std::chrono::nanoseconds limit);
  /// Ends the current or the next Wait(). What the caller changed before is seen by the woken
  /// thread. Cheap when a wake-up is already on its way.
  void Wake() noexcept;

 private:
  ZrDescriptor poll_;
  ZrDescriptor wake_;
  std::atomic<bool> woken_{false};  // true from Wake() until the waiting thread has seen it
  std::vector<ZrReadiness> ready_;  // of the waiting thread
};
