#include "http/peer_watch.h"

#include <utility>

ZrPeerWatch::Token ZrPeerWatch::Subscribe(std::function<void()> action) {
  ZrLock hold(lock_);
  if (gone_.load(std::memory_order_relaxed)) return 0;
  actions_.emplace(++last_, std::move(action));
  return last_;
}

void ZrPeerWatch::Unsubscribe(Token token) {
  decltype(actions_)::node_type dropped;  // what it owns is released without the lock
  ZrLock hold(lock_);
  dropped = actions_.extract(token);
}

// One by one, so that an action may take another's subscription back.
void ZrPeerWatch::MarkGone() {
  for (;;) {
    decltype(actions_)::node_type action;
    {
      ZrLock hold(lock_);
      gone_.store(true, std::memory_order_release);
      if (actions_.empty()) return;
      action = actions_.extract(actions_.begin());
    }
    action.mapped()();
  }
}
