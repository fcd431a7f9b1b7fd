#include "platform/signals.h"

#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <system_error>

namespace zr {
namespace {

sigset_t SetOf(bool reopens) {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  if (reopens) sigaddset(&set, SIGHUP);
  return set;
}

}  // namespace

ZrSignalWaiter::ZrSignalWaiter(bool reopens) {
  const sigset_t set = SetOf(reopens);
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  // A reader of our output that goes away must not end the server with its next log line.
  signal(SIGPIPE, SIG_IGN);
  signals_ = ZrDescriptor(signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
  wake_ = ZrDescriptor(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (!signals_.IsOpen() || !wake_.IsOpen())
    throw std::system_error(errno, std::generic_category(), "waiting for signals");
}

ZrSignalWaiter::~ZrSignalWaiter() {
  if (stopTaken_)
    for (const int number : {SIGINT, SIGTERM}) signal(number, [](int) { _exit(0); });
  const sigset_t set = SetOf(true);
  pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}

Signal ZrSignalWaiter::Wait(std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (true) {
    signalfd_siginfo info{};
    if (read(signals_.Get(), &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
      if (info.ssi_signo == SIGHUP) return Signal::kReopen;
      stopTaken_ = true;
      return Signal::kStop;
    }
    std::uint64_t count = 0;
    if (read(wake_.Get(), &count, sizeof count) == static_cast<ssize_t>(sizeof count))
      return Signal::kWake;
    int timeout = -1;
    if (limit.count() >= 0) {
      const auto left =
          std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
      if (left.count() <= 0) return Signal::kTimeout;
      timeout = static_cast<int>(left.count());
    }
    pollfd sources[2] = {{signals_.Get(), POLLIN, 0}, {wake_.Get(), POLLIN, 0}};
    poll(sources, 2, timeout);
  }
}

void ZrSignalWaiter::Wake() noexcept {
  const std::uint64_t one = 1;
  [[maybe_unused]] const ssize_t written = write(wake_.Get(), &one, sizeof one);
}

}  // namespace zr
