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

ZrSignalWaiter::ZrSignalWaiter() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGHUP);
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  // A reader of our output that goes away must not end the server with its next log line.
  signal(SIGPIPE, SIG_IGN);
  signals_ = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
  wake_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (signals_ < 0 || wake_ < 0) {
    throw std::system_error(errno, std::generic_category(), "waiting for signals");
  }
}

ZrSignalWaiter::~ZrSignalWaiter() {
  close(signals_);
  close(wake_);
}

Signal ZrSignalWaiter::Wait() {
  while (true) {
    signalfd_siginfo info{};
    if (read(signals_, &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
      return info.ssi_signo == SIGHUP ? Signal::kReopen : Signal::kStop;
    }
    std::uint64_t count = 0;
    if (read(wake_, &count, sizeof count) == static_cast<ssize_t>(sizeof count)) {
      return Signal::kWake;
    }
    pollfd sources[2] = {{signals_, POLLIN, 0}, {wake_, POLLIN, 0}};
    poll(sources, 2, -1);
  }
}

void ZrSignalWaiter::Wake() noexcept {
  const std::uint64_t one = 1;
  [[maybe_unused]] const ssize_t written = write(wake_, &one, sizeof one);
}

}  // namespace zr
