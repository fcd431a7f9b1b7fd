#pragma once
// Whether the peer of a message can still be answered. A connection owns one watch and every
// request that came in on it carries it, so that work for a peer that has gone (a program that
// waits for its turn, or runs) ends instead of being done for nobody. The watch knows nothing of
// either side.

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <utility>

#include "platform/sync.h"

/// Held in shared ownership by the connection and its requests. Threads: any.
class ZrPeerWatch {
 public:
  using Token = std::uint64_t;

  /// What becomes of a peer, in this order; it may be gone without having ended its side before.
  enum class State : std::uint8_t {
    kThere,
    /// It has ended its own side. It may still read its answer and is owed it; but nobody can tell
    /// it from one that has closed altogether before bytes were sent to it.
    kEnded,
    /// The connection was removed, for whatever reason.
    kGone,
  };

  ZrPeerWatch() = default;
  ZrPeerWatch(const ZrPeerWatch&) = delete;
  ZrPeerWatch& operator=(const ZrPeerWatch&) = delete;

  bool Gone() const noexcept { return Is(State::kGone); }
  /// Whether it has ended its side, or gone.
  bool Ended() const noexcept { return Is(State::kEnded); }
  /// Has the action called once when the peer goes, or has ended its side (or goes), on the thread
  /// that found out and with no lock of the watch held: it does not wait, and owns (or holds
  /// weakly) what it touches. Returns the token for Unsubscribe(); 0, and nothing is called, when
  /// that is so already.
  [[nodiscard]] Token Subscribe(std::function<void()> action, State when = State::kGone)
      ZR_EXCLUDES(lock_);
  /// The action is not begun any more; one that is being called at this moment goes on. May be
  /// called within an action. Unknown tokens and 0 are ignored.
  void Unsubscribe(Token token) ZR_EXCLUDES(lock_);
  /// For the owner of the connection. They call the actions; once.
  void MarkEnded() ZR_EXCLUDES(lock_) { Mark(State::kEnded); }
  void MarkGone() ZR_EXCLUDES(lock_) { Mark(State::kGone); }

 private:
  struct Action {
    State when;
    std::function<void()> call;
  };

  bool Is(State state) const noexcept { return state_.load(std::memory_order_acquire) >= state; }
  void Mark(State state) ZR_EXCLUDES(lock_);

  std::atomic<State> state_{State::kThere};  // set under lock_
  ZrMutex lock_;                             // never held while calling out
  Token last_ ZR_GUARDED_BY(lock_) = 0;
  std::map<Token, Action> actions_ ZR_GUARDED_BY(lock_);
};

/// One subscription, taken back by the destructor. Threads: one at a time.
class ZrPeerSubscription {
 public:
  /// None.
  ZrPeerSubscription() = default;
  /// Subscribes; without a watch the action is never called.
  ZrPeerSubscription(std::shared_ptr<ZrPeerWatch> watch, std::function<void()> action,
                     ZrPeerWatch::State when = ZrPeerWatch::State::kGone)
      : watch_(std::move(watch)), token_(watch_ ? watch_->Subscribe(std::move(action), when) : 0) {}
  ZrPeerSubscription(ZrPeerSubscription&& other) noexcept
      : watch_(std::move(other.watch_)), token_(std::exchange(other.token_, 0)) {}
  ZrPeerSubscription& operator=(ZrPeerSubscription&& other) noexcept {
    std::swap(watch_, other.watch_);
    std::swap(token_, other.token_);
    return *this;
  }
  ~ZrPeerSubscription() {
    if (token_ != 0) watch_->Unsubscribe(token_);
  }

  /// Whether the peer has gone; never without a watch.
  bool Gone() const noexcept { return watch_ && watch_->Gone(); }
  /// Whether it has ended its side, or gone; never without a watch.
  bool Ended() const noexcept { return watch_ && watch_->Ended(); }

 private:
  std::shared_ptr<ZrPeerWatch> watch_;
  ZrPeerWatch::Token token_ = 0;
};
