#include "transceiver/flow_notices.h"

void ZrFlowNotices::OnRoom(std::function<void()> action) {
  roomMark_ = kNoMark;
  ZrLock hold(lock_);
  onRoom_.swap(action);  // the old one is released without the lock
}

void ZrFlowNotices::OnInput(std::function<void()> action) {
  tellsInput_ = static_cast<bool>(action);
  ZrLock hold(lock_);
  onInput_.swap(action);  // as above
}

// The mark is set before the bytes are looked at, and the sender looks at the mark after it has
// taken bytes: one of the two sees the other.
bool ZrFlowNotices::AwaitRoom(std::uint64_t full, std::uint64_t room) {
  if (output_.Bytes() <= full) return false;
  roomMark_ = room;
  TellRoom();
  return true;
}

void ZrFlowNotices::CallRoom() {
  if (roomMark_.exchange(kNoMark) == kNoMark) return;
  std::function<void()> action;
  {
    ZrLock hold(lock_);
    action = onRoom_;
  }
  if (action) action();
}

void ZrFlowNotices::CallInput() {
  std::function<void()> action;
  {
    ZrLock hold(lock_);
    action = onInput_;
  }
  if (action) action();
}
