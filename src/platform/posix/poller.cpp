#include "platform/poller.h"

#include <errno.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <limits>
#include <system_error>
#include <thread>

namespace {

using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using std::chrono::steady_clock;

constexpr std::uint64_t kWakeToken = std::numeric_limits<std::uint64_t>::max();
// One pass takes at most this many; the rest stays ready for the next, in the kernel's turn order.
// More would spare little and keep the first of them waiting for the last.
constexpr std::size_t kMostEvents = 64;

std::uint32_t NativeInterest(unsigned interest) {
  std::uint32_t events = 0;
  if ((interest & ZrInterest::kRead) != 0) events |= EPOLLIN;
  if ((interest & ZrInterest::kWrite) != 0) events |= EPOLLOUT;
  if ((interest & ZrInterest::kUrgent) != 0) events |= EPOLLPRI;
  return events;
}

bool Control(int poll, int operation, int descriptor, std::uint64_t token, unsigned interest) {
  epoll_event event{};
  event.events = NativeInterest(interest);
  event.data.u64 = token;
  return ::epoll_ctl(poll, operation, descriptor, &event) == 0;
}

int WaitOnce(int poll, std::span<epoll_event> events, nanoseconds left, bool bounded) {
  int timeout = -1;
  if (bounded) {
    const auto rounded = std::chrono::ceil<milliseconds>(std::max(left, nanoseconds::zero()));
    timeout = static_cast<int>(std::min<std::int64_t>(rounded.count(), 24L * 3600 * 1000));
  }
  return ::epoll_wait(poll, events.data(), static_cast<int>(events.size()), timeout);
}

}  // namespace

ZrPoller::ZrPoller()
    : poll_(::epoll_create1(EPOLL_CLOEXEC)), wake_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (!poll_.IsOpen() || !wake_.IsOpen() ||
      !Control(poll_.Get(), EPOLL_CTL_ADD, wake_.Get(), kWakeToken, ZrInterest::kRead))
    throw std::system_error(errno, std::generic_category(), "no descriptors left to wait on");
  ready_.reserve(kMostEvents);
}

bool ZrPoller::Add(int descriptor, std::uint64_t token, unsigned interest) {
  return Control(poll_.Get(), EPOLL_CTL_ADD, descriptor, token, interest);
}

void ZrPoller::Remove(int descriptor) {
  Control(poll_.Get(), EPOLL_CTL_DEL, descriptor, 0, ZrInterest::kNone);
}

std::span<const ZrReadiness> ZrPoller::Wait(nanoseconds limit) {
  std::array<epoll_event, kMostEvents> events;
  ready_.clear();
  const bool bounded = limit >= nanoseconds::zero();
  const auto deadline = bounded ? steady_clock::now() + limit : steady_clock::time_point();
  int count = 0;
  for (;;) {
    count = WaitOnce(poll_.Get(), events,
                     bounded ? deadline - steady_clock::now() : nanoseconds::zero(), bounded);
    if (count > 0) break;
    if (count < 0 && errno != EINTR) {
      // The host closed what is not its own: nothing will ever be ready, and no core burns for it.
      std::this_thread::sleep_for(milliseconds(20));
      return {};
    }
    if (bounded && steady_clock::now() >= deadline) return {};
  }
  for (const epoll_event& event : std::span(events).first(static_cast<std::size_t>(count))) {
    if (event.data.u64 == kWakeToken) {
      std::uint64_t wakes = 0;
      // Emptied before the flag falls: a wake-up in between only finds this thread on its way out,
      // and the exchange makes what its caller changed before visible here.
      [[maybe_unused]] const ssize_t taken = ::read(wake_.Get(), &wakes, sizeof wakes);
      woken_.exchange(false, std::memory_order_acq_rel);
      continue;
    }
    const bool hangup = (event.events & (EPOLLERR | EPOLLHUP)) != 0;
    ready_.push_back({.token = event.data.u64,
                      .readable = (event.events & EPOLLIN) != 0,
                      .writable = (event.events & EPOLLOUT) != 0,
                      .urgent = (event.events & EPOLLPRI) != 0,
                      .hangup = hangup});
  }
  return ready_;
}

void ZrPoller::Wake() noexcept {
  if (woken_.exchange(true, std::memory_order_acq_rel)) return;
  const std::uint64_t one = 1;
  // It can only fail when the counter is full, and then the wake-up is there already.
  [[maybe_unused]] const ssize_t written = ::write(wake_.Get(), &one, sizeof one);
}
