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

// Initial-exec: no loader lock at first use, which a thread could wait for while the library is
// unloaded.
[[gnu::tls_model("initial-exec")]] thread_local bool blockedForLife = false;

}  // namespace

void NoteSigPipeBlocked() noexcept { blockedForLife = true; }

ZrSigPipeGuard::ZrSigPipeGuard() noexcept : forLife_(blockedForLife) {
  if (forLife_) return;
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
  if (!forLife_ && !blockedBefore_) ::pthread_sigmask(SIG_SETMASK, &before_, nullptr);
}

}  // namespace zr
