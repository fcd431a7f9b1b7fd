#pragma once
// Keeps SIGPIPE away from one system call. The host's signal dispositions stay untouched: the
// signal is blocked for this thread alone, and one that the call raised is taken back.

#include <signal.h>

namespace zr {

/// Says that the calling thread blocks SIGPIPE for its whole life: what guards it has nothing to do
/// then but to take back a signal that was raised.
void NoteSigPipeBlocked() noexcept;

/// Blocks SIGPIPE for the calling thread as long as it lives.
class ZrSigPipeGuard {
 public:
  ZrSigPipeGuard() noexcept;
  ~ZrSigPipeGuard();
  ZrSigPipeGuard(const ZrSigPipeGuard&) = delete;
  ZrSigPipeGuard& operator=(const ZrSigPipeGuard&) = delete;

  /// Says that the guarded call failed with EPIPE, so that its signal has to be taken back.
  void BrokenPipe() noexcept { raised_ = true; }

 private:
  const bool forLife_;  // it was blocked before, and nobody else's can be pending on the thread
  sigset_t before_;
  bool blockedBefore_ = false;
  bool pendingBefore_ = false;
  bool raised_ = false;
};

}  // namespace zr
