#pragma once
// How much one thread writes on one connection before others have their turn, and which bytes of a
// file it takes. A share is small, so that what the peer reads next is still in the cache, and ends
// in a time in which the others are not missed: a disk may be slow. A pass of receiving has
// requests of others to answer: it waits for no disk; the send job has the rest.

#include <cstddef>
#include <cstdint>

#include "net/send_queue.h"
#include "platform/clock.h"

/// Stands on the writer's stack. Threads: that one.
class ZrWritePass {
 public:
  /// What a pass writes at most, in bytes, but for the last call of it ...
  static constexpr std::size_t kBudget = std::size_t{128} * 1024;
  /// (of the send job where the bytes are encrypted: each turn costs more, and they come out of the
  /// cache anyhow)
  static constexpr std::size_t kEncryptedBudget = std::size_t{1} << 20;
  /// ... and what begins no call later than that, in nanoseconds.
  static constexpr std::int64_t kLongest = 1'000'000;

  /// The clock outlives it.
  explicit ZrWritePass(const ZrClock& clock, std::size_t sendBudget = kBudget);

  ZrSendQueue::Files Files() const { return files_; }
  /// Bytes went.
  void Spend(std::size_t bytes) { spent_ += bytes; }
  std::size_t Spent() const { return spent_; }
  /// The rest is for the next pass.
  bool IsOver() const { return spent_ >= budget_ || (spent_ > 0 && clock_.MonotonicNs() >= end_); }

 private:
  const ZrClock& clock_;
  const ZrSendQueue::Files files_;
  const std::size_t budget_;
  const std::int64_t end_;
  std::size_t spent_ = 0;
};
