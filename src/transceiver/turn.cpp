#include "transceiver/turn.h"

#include <utility>

namespace {

using S = ZrTurn::State;
using T = ZrTurn::Transition;
using E = ZrTurn::Effect;

// clang-format off
constexpr std::array<std::array<ZrTurn::Transition, ZrTurn::kEvents>, ZrTurn::kStates> kTable = {{
    // kReceived, kBegin, kBeginFull, kTaken, kPutBack,
    // kEnd, kEndFull, kOutputGone, kCloseAfter, kClose
    /* kIdle */ {{
        T{S::kAnnounced, E::kAnnounce}, T{S::kBusy, E::kGrant}, T{S::kIdle, E::kRefuse},
        T{S::kIdle, E::kNone}, T{S::kHeld, E::kNone},
        T{S::kIdle, E::kRest}, T{S::kIdle, E::kRest}, T{S::kIdle, E::kNone},
        T{S::kLast, E::kNone}, T{S::kClosing, E::kNone}}},
    /* kAnnounced */ {{
        T{S::kAnnounced, E::kNone}, T{S::kBusyHeld, E::kGrant}, T{S::kHeld, E::kRefuse},
        T{S::kIdle, E::kNone}, T{S::kAnnounced, E::kNone},
        T{S::kAnnounced, E::kNone}, T{S::kAnnounced, E::kNone}, T{S::kAnnounced, E::kNone},
        T{S::kLast, E::kNone}, T{S::kClosing, E::kNone}}},
    /* kHeld */ {{
        T{S::kHeld, E::kNone}, T{S::kBusyHeld, E::kGrant}, T{S::kHeld, E::kRefuse},
        T{S::kIdle, E::kNone}, T{S::kHeld, E::kNone},
        T{S::kAnnounced, E::kWake}, T{S::kHeld, E::kNone}, T{S::kAnnounced, E::kAnnounce},
        T{S::kLast, E::kNone}, T{S::kClosing, E::kNone}}},
    /* kBusy */ {{
        T{S::kBusyAnnounced, E::kAnnounce}, T{S::kBusy, E::kRefuse}, T{S::kBusy, E::kRefuse},
        T{S::kBusy, E::kNone}, T{S::kBusyHeld, E::kNone},
        T{S::kIdle, E::kRest}, T{S::kIdle, E::kRest}, T{S::kBusy, E::kNone},
        T{S::kLastBusy, E::kNone}, T{S::kClosing, E::kNone}}},
    /* kBusyAnnounced */ {{
        T{S::kBusyAnnounced, E::kNone}, T{S::kBusyHeld, E::kRefuse}, T{S::kBusyHeld, E::kRefuse},
        T{S::kBusy, E::kNone}, T{S::kBusyHeld, E::kNone},
        T{S::kAnnounced, E::kNone}, T{S::kAnnounced, E::kNone}, T{S::kBusyAnnounced, E::kNone},
        T{S::kLastBusy, E::kNone}, T{S::kClosing, E::kNone}}},
    /* kBusyHeld */ {{
        T{S::kBusyHeld, E::kNone}, T{S::kBusyHeld, E::kRefuse}, T{S::kBusyHeld, E::kRefuse},
        T{S::kBusy, E::kNone}, T{S::kBusyHeld, E::kNone},
        T{S::kAnnounced, E::kWake}, T{S::kHeld, E::kNone}, T{S::kBusyHeld, E::kNone},
        T{S::kLastBusy, E::kNone}, T{S::kClosing, E::kNone}}},
    /* kLast */ {{
        T{S::kLast, E::kAnnounce}, T{S::kLastBusy, E::kGrant}, T{S::kLastBusy, E::kGrant},
        T{S::kLast, E::kNone}, T{S::kLast, E::kNone},
        T{S::kLast, E::kShut}, T{S::kLast, E::kShut}, T{S::kLast, E::kNone},
        T{S::kLast, E::kNone}, T{S::kClosing, E::kNone}}},
    /* kLastBusy */ {{
        T{S::kLastBusy, E::kNone}, T{S::kLastBusy, E::kRefuse}, T{S::kLastBusy, E::kRefuse},
        T{S::kLastBusy, E::kNone}, T{S::kLastBusy, E::kNone},
        T{S::kLast, E::kShut}, T{S::kLast, E::kShut}, T{S::kLastBusy, E::kNone},
        T{S::kLastBusy, E::kNone}, T{S::kClosing, E::kNone}}},
    /* kClosing */ {{
        T{S::kClosing, E::kDrop}, T{S::kClosing, E::kRefuse}, T{S::kClosing, E::kRefuse},
        T{S::kClosing, E::kNone}, T{S::kClosing, E::kDrop},
        T{S::kClosing, E::kNone}, T{S::kClosing, E::kNone}, T{S::kClosing, E::kNone},
        T{S::kClosing, E::kNone}, T{S::kClosing, E::kNone}}},
}};
// clang-format on

}  // namespace

ZrTurn::Transition ZrTurn::Next(State state, Event event) {
  return kTable[static_cast<std::size_t>(state)][static_cast<std::size_t>(event)];
}

ZrTurn::Effect ZrTurn::Apply(Event event) {
  const Transition transition = Next(state_.load(std::memory_order_relaxed), event);
  state_.store(transition.next, std::memory_order_release);
  return transition.effect;
}

// ---- The bytes ---------------------------------------------------------------------------------

void ZrTurn::BecomeAsking() {
  ZrLock hold(lock_);
  role_ = Role::kAsks;
}

bool ZrTurn::Receive(std::string_view bytes) {
  ZrLock hold(lock_);
  const Effect effect = Apply(Event::kReceived);
  if (effect != Effect::kDrop) bytes_.Append(bytes);
  Count();
  return effect == Effect::kAnnounce;
}

// Buffers change hands instead of being copied, so that many messages in one buffer are taken apart
// in time linear in their bytes. In an item reading goes on when that has ended, not when its bytes
// are taken: some of them may come back.
void ZrTurn::Move(ZrStringBuf& target) {
  if (target.Empty() && bytes_.Size() >= kHandOver) {
    target = std::move(bytes_);
  } else {
    target.Append(bytes_.Unread());
    bytes_.Clear();
  }
  Count();
  Apply(Event::kTaken);
}

bool ZrTurn::Take(ZrStringBuf& target) {
  ZrLock hold(lock_);
  Move(target);
  return !InItem() && Resume();
}

bool ZrTurn::TakeMore(ZrStringBuf& target) {
  ZrLock hold(lock_);
  Move(target);
  return Resume();
}

void ZrTurn::PutBack(ZrStringBuf& bytes) {
  if (bytes.Empty()) return;
  ZrLock hold(lock_);
  if (Apply(Event::kPutBack) == Effect::kDrop) return bytes.Clear();
  bytes.Append(bytes_.Unread());
  bytes_ = std::move(bytes);
  Count();
}

void ZrTurn::Forget() {
  ZrLock hold(lock_);
  bytes_.Clear();
  Count();
  Apply(Event::kTaken);
}

// ---- Items -------------------------------------------------------------------------------------

bool ZrTurn::Begin() {
  ZrLock hold(lock_);
  const bool full = role_ == Role::kServes && OutputFull();
  if (Apply(full ? Event::kBeginFull : Event::kBegin) != Effect::kGrant) return false;
  item_.store(Item() + 1, std::memory_order_relaxed);
  return true;
}

ZrTurn::After ZrTurn::End(bool& resume) {
  ZrLock hold(lock_);
  return EndLocked(resume);
}

ZrTurn::After ZrTurn::EndAndClose(std::uint32_t item, bool& resume) {
  resume = false;
  ZrLock hold(lock_);
  Apply(Event::kCloseAfter);
  if (InItem() && item != Item()) return After::kNothing;
  return EndLocked(resume);
}

ZrTurn::After ZrTurn::EndLocked(bool& resume) {
  const Effect effect = Apply(OutputFull() ? Event::kEndFull : Event::kEnd);
  resume = Resume();
  switch (effect) {
    case Effect::kWake:
      return After::kWake;
    case Effect::kShut:
      return After::kClose;
    case Effect::kRest:
      return input_ == Input::kEnded ? After::kClose : After::kNothing;
    case Effect::kNone:
    case Effect::kGrant:
    case Effect::kRefuse:
    case Effect::kAnnounce:
    case Effect::kDrop:
      break;
  }
  return After::kNothing;
}

bool ZrTurn::InItem() const noexcept {
  switch (state_.load(std::memory_order_acquire)) {
    case State::kBusy:
    case State::kBusyAnnounced:
    case State::kBusyHeld:
    case State::kLastBusy:
      return true;
    case State::kIdle:
    case State::kAnnounced:
    case State::kHeld:
    case State::kLast:
    case State::kClosing:
      break;
  }
  return false;
}

void ZrTurn::CloseAfterItem() {
  ZrLock hold(lock_);
  Apply(Event::kCloseAfter);
}

bool ZrTurn::OutputWent() {
  if (!outputWasFull_) return false;  // nobody was turned away for it
  ZrLock hold(lock_);
  if (OutputFull()) return false;
  outputWasFull_ = false;
  return Apply(Event::kOutputGone) == Effect::kAnnounce;
}

void ZrTurn::Close() {
  ZrLock hold(lock_);
  Apply(Event::kClose);
  if (role_ == Role::kServes) bytes_.Clear();
  Count();
}

// ---- Reading -----------------------------------------------------------------------------------

bool ZrTurn::PauseWhenFull() {
  if (Size() <= kReadMark) return false;
  ZrLock hold(lock_);
  // While it closes nothing is added, and the peer's end is to be seen.
  if (IsClosing() || bytes_.Size() <= kReadMark) return false;
  if (input_ == Input::kReading) input_ = Input::kPaused;
  return true;
}

void ZrTurn::Pause() {
  ZrLock hold(lock_);
  if (input_ == Input::kReading) input_ = Input::kPaused;
}

bool ZrTurn::Resume() {
  if (input_ != Input::kPaused || bytes_.Size() > kReadMark) return false;
  input_ = Input::kReading;
  return true;
}

bool ZrTurn::EndInput() {
  ZrLock hold(lock_);
  input_ = Input::kEnded;
  return InItem() || !bytes_.Empty();
}

bool ZrTurn::InputEnded() const {
  ZrLock hold(lock_);
  return input_ == Input::kEnded;
}
