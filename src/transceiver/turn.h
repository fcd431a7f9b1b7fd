#pragma once
// The turn of one connection: what was received and not yet taken, and whose turn it is. Messages
// of a connection are handled one after the other, so bytes wait while one is in progress, while
// the peer leaves too many answers unread, and no longer than that: for bytes that wait somebody is
// always on the way.
//
// The states. "An item" is the handling of what was received: for a request that was handed out it
// lasts until the answer is queued.
//
//   kIdle           no item, no bytes
//   kAnnounced      no item; bytes wait, and the server has been told of them
//   kHeld           no item; bytes wait, the server was turned away because of unread output and is
//                   told again when that has gone
//   kBusy           an item is in progress, no bytes wait behind it
//   kBusyAnnounced  ... bytes wait, and the server has been told of them
//   kBusyHeld       ... bytes wait, and nobody will come for them (they are those the item began
//                   with, the server was turned away, or they were put back): what is left of them
//                   when the item has ended is the next one
//   kLast           no item; the connection closes when the next one has ended, bytes or not
//   kLastBusy       the item in progress is the last one
//   kClosing        for good: nothing is taken in and no item begins; what is queued still goes
//
// The transitions are the table in turn.cpp: one row for each state, one column for each event.
//
// Beside them, and on its own: what is read from the peer (ZrTurn::Input). Reading pauses while
// more than kReadMark bytes wait, and ends for good with the peer's side. A peer's end changes no
// state: what it asked for before is still answered, and it is looked at when nothing is left to
// do.

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <span>
#include <string_view>
#include <utility>

#include "base/memory_budget.h"
#include "base/string_buffer.h"
#include "net/send_queue.h"
#include "platform/sync.h"

/// Threads: any. Calls nobody, so that it can be asked under any lock.
class ZrTurn {
 public:
  /// Reading pauses while more bytes than that wait to be taken.
  static constexpr std::size_t kReadMark = 256 * 1024;
  /// No further message is begun while more bytes than that wait to be sent.
  static constexpr std::uint64_t kOutputMark = 64 * 1024;
  /// From that many bytes on a whole buffer is handed over instead of copied.
  static constexpr std::size_t kHandOver = 2048;

  enum class State : std::uint8_t {
    kIdle,
    kAnnounced,
    kHeld,
    kBusy,
    kBusyAnnounced,
    kBusyHeld,
    kLast,
    kLastBusy,
    kClosing,
  };
  static constexpr std::size_t kStates = 9;
  /// What happens to a turn. "Full" is said of output: more than kOutputMark waits.
  enum class Event : std::uint8_t {
    kReceived,    ///< bytes came
    kBegin,       ///< the server asks for the turn
    kBeginFull,   ///< ... while output is full
    kTaken,       ///< all bytes were taken, or forgotten
    kPutBack,     ///< some were put back
    kEnd,         ///< the item has ended
    kEndFull,     ///< ... while output is full
    kOutputGone,  ///< output is not full any more
    kCloseAfter,  ///< the connection is to be closed after the item
    kClose,       ///< the connection closes
  };
  static constexpr std::size_t kEvents = 10;
  /// What has to be done about it.
  enum class Effect : std::uint8_t {
    kNone,
    kGrant,     ///< an item begins
    kRefuse,    ///< none begins; who asked is told again when one can
    kAnnounce,  ///< tell the server of the bytes
    kWake,      ///< the same, by whoever ended the item
    kRest,      ///< nothing is left to do: if the peer has ended its side, close
    kShut,      ///< close
    kDrop,      ///< the bytes are not wanted
  };
  struct Transition {
    State next;
    Effect effect;
  };
  /// The table.
  static Transition Next(State state, Event event);

  /// Whether bytes are requests, or answers to what is sent here.
  enum class Role : std::uint8_t {
    kServes,
    kAsks,  ///< they are taken also while output is full, and kept when the connection closes
  };
  enum class Input : std::uint8_t { kReading, kPaused, kEnded };
  /// What the end of an item leaves to do.
  enum class After { kNothing, kWake, kClose };

  /// The queue says how much output waits; it lives longer than the turn.
  /// Bytes that wait count in the budget; without one they count for nobody.
  explicit ZrTurn(const ZrSendQueue& output, std::shared_ptr<ZrMemoryBudget> budget = nullptr)
      : output_(output), share_(std::move(budget)) {}

  void BecomeAsking() ZR_EXCLUDES(lock_);
  /// Keeps bytes. Yes: the server is to be told of them.
  bool Receive(std::string_view bytes) ZR_EXCLUDES(lock_);
  /// Moves all bytes to the end of the target. Yes: reading had paused and goes on.
  bool Take(ZrStringBuf& target) ZR_EXCLUDES(lock_);
  /// The same for the item in progress, of which nothing will be put back that is read by others.
  bool TakeMore(ZrStringBuf& target) ZR_EXCLUDES(lock_);
  /// Puts bytes back in front; the buffer is left empty.
  void PutBack(ZrStringBuf& bytes) ZR_EXCLUDES(lock_);
  /// Forgets all bytes.
  void Forget() ZR_EXCLUDES(lock_);

  bool Begin() ZR_EXCLUDES(lock_);
  /// The item that was begun last; while it is in progress nobody begins another one.
  std::uint32_t Item() const noexcept { return item_.load(std::memory_order_relaxed); }
  /// `resume` tells whether reading had paused and goes on.
  After End(bool& resume) ZR_EXCLUDES(lock_);
  /// The item ends unless it has already, and the connection closes behind it, or behind the next
  /// one when that has begun meanwhile.
  After EndAndClose(std::uint32_t item, bool& resume) ZR_EXCLUDES(lock_);
  void CloseAfterItem() ZR_EXCLUDES(lock_);
  /// Output went. Yes: the server waited for that and is to be told.
  bool OutputWent() ZR_EXCLUDES(lock_);
  void Close() ZR_EXCLUDES(lock_);
  /// The peer ended its side. Yes: an item is in progress, or bytes are left to become one.
  bool EndInput() ZR_EXCLUDES(lock_);
  /// More waits than reading goes on with; a Take() or End() will say when it does.
  bool PauseWhenFull() ZR_EXCLUDES(lock_);
  /// Reading pauses for another reason: the next Take() or End() says that it may go on.
  void Pause() ZR_EXCLUDES(lock_);
  /// Bytes that wait.
  std::size_t Size() const noexcept { return waiting_.load(std::memory_order_acquire); }

  bool IsClosing() const noexcept { return state_.load() == State::kClosing; }
  bool InItem() const noexcept;
  bool HasBytes() const noexcept { return Size() > 0; }
  bool InputEnded() const ZR_EXCLUDES(lock_);

 private:
  Effect Apply(Event event) ZR_REQUIRES(lock_);
  void Move(ZrStringBuf& target) ZR_REQUIRES(lock_);
  After EndLocked(bool& resume) ZR_REQUIRES(lock_);
  // Said before it is looked at again: whoever takes the output away sees the one or is seen.
  bool OutputFull() {
    if (output_.Bytes() <= kOutputMark) return false;
    outputWasFull_ = true;
    return output_.Bytes() > kOutputMark;
  }
  bool Resume() ZR_REQUIRES(lock_);
  void Count() ZR_REQUIRES(lock_) {
    share_.SetPages(bytes_.Size());
    waiting_.store(bytes_.Size(), std::memory_order_release);
  }

  const ZrSendQueue& output_;
  mutable ZrMutex lock_;
  std::atomic<State> state_{State::kIdle};  // changed under the lock only, like the next
  std::atomic<std::uint32_t> item_{0};
  std::atomic<std::size_t> waiting_{0};  // the size of bytes_
  std::atomic<bool> outputWasFull_{false};
  Role role_ ZR_GUARDED_BY(lock_) = Role::kServes;
  Input input_ ZR_GUARDED_BY(lock_) = Input::kReading;
  ZrStringBuf bytes_ ZR_GUARDED_BY(lock_);
  ZrMemoryShare share_ ZR_GUARDED_BY(lock_);
};
