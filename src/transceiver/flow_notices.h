#pragma once
// Who writes a long answer piece by piece, or takes the body of a request as it comes, is told by
// these when there is something to do.

#include <atomic>
#include <cstdint>
#include <functional>

#include "net/send_queue.h"
#include "platform/sync.h"

/// Actions are called on the threads that receive and send, with no lock held, possibly once more
/// while they are exchanged. Threads: any.
class ZrFlowNotices {
 public:
  /// The queue outlives it.
  explicit ZrFlowNotices(const ZrSendQueue& output) : output_(output) {}

  /// Who writes a long answer is told by this when there is room for more; an empty one ends it.
  void OnRoom(std::function<void()> action) ZR_EXCLUDES(lock_);
  /// Who takes what comes during the item in progress, which is the body of its request, is told by
  /// this when something came or the peer has ended its side; an empty one ends it.
  void OnInput(std::function<void()> action) ZR_EXCLUDES(lock_);
  /// Whether more than `full` bytes wait to be sent: the action is then called once, when at most
  /// `room` do.
  bool AwaitRoom(std::uint64_t full, std::uint64_t room);

  /// Output went: tells who waits for room, when there is enough.
  void TellRoom() {
    if (roomMark_.load() != kNoMark && output_.Bytes() <= roomMark_.load()) CallRoom();
  }
  void TellInput() {
    if (tellsInput_) CallInput();
  }

 private:
  static constexpr std::uint64_t kNoMark = ~std::uint64_t{0};

  void CallRoom() ZR_EXCLUDES(lock_);
  void CallInput() ZR_EXCLUDES(lock_);

  const ZrSendQueue& output_;
  std::atomic<std::uint64_t> roomMark_{kNoMark};  // somebody waits until no more is queued
  std::atomic<bool> tellsInput_{false};           // onInput_ is set
  ZrMutex lock_;                                  // never held while calling out
  std::function<void()> onRoom_ ZR_GUARDED_BY(lock_);
  std::function<void()> onInput_ ZR_GUARDED_BY(lock_);
};
