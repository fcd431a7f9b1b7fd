#pragma once
// The time that a message may take to arrive on a connection: its head, a TLS handshake as well,
// and its body, which has longer the more of it has come.

#include <atomic>
#include <cstdint>
#include <limits>

#include "platform/clock.h"
#include "transceiver/fwd.h"

/// Threads: any.
class ZrConnectionLimits {
 public:
  /// A head, and a handshake, must be complete within that time (nanoseconds).
  static constexpr std::int64_t kHeadTimeLimit = 60'000'000'000;
  /// A body has that time (nanoseconds); later it must have come at kBodyRate on average.
  static constexpr std::int64_t kBodyTimeLimit = 60'000'000'000;
  static constexpr std::int64_t kBodyRate = 1024;  ///< bytes a second
  /// A closed connection whose peer does not end its side goes after that time (nanoseconds).
  static constexpr std::int64_t kLingerTime = 2'000'000'000;
  static constexpr std::int64_t kNever = std::numeric_limits<std::int64_t>::max();

  /// The clock outlives it.
  explicit ZrConnectionLimits(const ZrClock& clock) : clock_(clock) {}

  /// A head has begun and is not complete / is complete. One that comes too late is answered as its
  /// rules have it; a handshake has none.
  void BeginHead(const ZrSemantics* rules = nullptr);
  void EndHead() { headSince_.store(0, std::memory_order_relaxed); }
  /// So many bytes of a body have come, and so many of them are in memory / it is complete.
  void NoteBody(const ZrSemantics& rules, std::uint64_t arrived, std::uint64_t held);
  void EndBody();
  /// What a body of so many bytes may take at most, in nanoseconds.
  static std::int64_t BodyTime(std::uint64_t bytes);
  /// Bytes in memory of a body that is not complete.
  std::uint64_t HeldBody() const { return bodyHeld_.load(std::memory_order_relaxed); }

  /// The connection is closed for sending; it goes when the linger time has passed.
  void BeginLinger() { lingerUntil_ = clock_.MonotonicNs() + kLingerTime; }
  bool Lingers() const { return lingerUntil_ != 0; }

  /// Monotonic time (nanoseconds) at which the first of these limits passes, as things stand.
  std::int64_t DueNs() const;
  /// A message is late: it counts as complete, and TakeLate() answers yes once. No: its rules
  /// have no answer for that.
  bool MarkLate();
  bool TakeLate() { return late_ && late_.exchange(false); }

 private:
  const ZrClock& clock_;
  std::atomic<std::int64_t> headSince_{0};  // monotonic time at which the head began; 0: none
  std::atomic<std::int64_t> bodySince_{0};  // monotonic time at which the body began; 0: none
  std::atomic<std::int64_t> bodyTime_{0};   // nanoseconds that it may take, by what has come
  std::atomic<std::uint64_t> bodyHeld_{0};
  std::atomic<const ZrSemantics*> rules_{nullptr};  // of the message that is incomplete
  std::atomic<bool> late_{false};
  std::atomic<std::int64_t> lingerUntil_{0};  // monotonic time; 0: not closed for sending yet
};
