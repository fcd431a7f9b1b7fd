#include "platform/posix/sigpipe.h"

#include <time.h>

namespace zr {
namespace {

sigset_t PipeSet() noexcept {
  sigset_t set;
  ::sigemptyset(&set);
  ::sigaddset(&set, SIGPIPE);
  return set;
}

}  // namespace

ZrSigPipeGuard::ZrSigPipeGuard() noexcept {
  const sigset_t pipeSet = PipeSet();
  ::pthread_sigmask(SIG_BLOCK, &pipeSet, &before_);
  blockedBefore_ = ::sigismember(&before_, SIGPIPE) == 1;
  if (blockedBefore_) {
    // Only then can one be pending already; that one belongs to somebody else.
    sigset_t pending;
    ::sigpending(&pending);
    pendingBefore_ = ::sigismember(&pending, SIGPIPE) == 1;
  }
}

ZrSigPipeGuard::~ZrSigPipeGuard() {
  if (raised_ && !pendingBefore_) {
    // The kernel raises it for the writing thread, before the call returns: no waiting is needed.
    const sigset_t pipeSet = PipeSet();
    const timespec none{0, 0};
    ::sigtimedwait(&pipeSet, nullptr, &none);
  }
  if (!blockedBefore_) ::pthread_sigmask(SIG_SETMASK, &before_, nullptr);
}

}  // namespace zr
