#include "http/peer_watch.h"

#include <algorithm>
#include <utility>

ZrPeerWatch::Token ZrPeerWatch::Subscribe(std::function<void()> action, State when) {
  ZrLock hold(lock_);
  if (Is(when)) return 0;
  actions_.emplace(++last_, Action{when, std::move(action)});
  return last_;
}

void ZrPeerWatch::Unsubscribe(Token token) {
  decltype(actions_)::node_type dropped;  // what it owns is released without the lock
  ZrLock hold(lock_);
  dropped = actions_.extract(token);
}

// One by one, so that an action may take another's subscription back.
void ZrPeerWatch::Mark(State state) {
  for (;;) {
    decltype(actions_)::node_type next;
    {
      ZrLock hold(lock_);
      if (!Is(state)) state_.store(state, std::memory_order_release);
      const auto found = std::find_if(actions_.begin(), actions_.end(),
                                      [&](const auto& one) { return one.second.when <= state; });
      if (found == actions_.end()) return;
      next = actions_.extract(found);
    }
    next.mapped().call();
  }
}
