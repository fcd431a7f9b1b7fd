#include "transceiver/stop_progress.h"

// Looks anew whenever something went on; what goes on during a look is seen by the next one.
bool ZrStopProgress::WaitUntilIdle(std::chrono::nanoseconds limit,
                                   const std::function<bool()>& busy) {
  const auto end = std::chrono::steady_clock::now() + limit;
  waiting_ = true;
  for (;;) {
    {
      ZrLock hold(lock_);
      progressed_ = false;
    }
    if (!busy()) return true;
    ZrLock hold(lock_);
    const auto changed = [this]() ZR_REQUIRES(lock_) { return progressed_ || abandoned_; };
    if (!changed_.WaitUntil(lock_, end, changed) || abandoned_) return false;
  }
}

void ZrStopProgress::Abandon() {
  ZrLock hold(lock_);
  abandoned_ = true;
  changed_.NotifyAll();
}

void ZrStopProgress::NoteWaited() {
  ZrLock hold(lock_);
  progressed_ = true;
  changed_.NotifyAll();
}
