#pragma once
// Keeps SIGPIPE away from one system call. The host's signal dispositions stay untouched: the
// signal is blocked for this thread alone, and one that the call raised is taken back.

#include <signal.h>

namespace zr {

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
  sigset_t before_;
  bool blockedBefore_ = false;
  bool pendingBefore_ = false;
  bool raised_ = false;
};

}  // namespace zr
