#include "platform/pipe.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdint>

#include "platform/posix/sigpipe.h"

void ZrDescriptor::Close() noexcept {
  if (descriptor_ < 0) return;
  const int before = errno;
  // On Linux the descriptor is gone even when close is interrupted; trying again could close
  // another's.
  ::close(std::exchange(descriptor_, -1));
  errno = before;
}

int ZrDescriptor::MoveAboveStandard(int descriptor) noexcept {
  const int moved = ::fcntl(descriptor, F_DUPFD_CLOEXEC, kLastStandard + 1);
  const int reason = errno;
  ::close(descriptor);
  errno = reason;
  return moved;
}

namespace {

std::error_code LastError() { return {errno, std::generic_category()}; }

// The time to the deadline in whole milliseconds, rounded up so that a wait never ends too early.
int PollTimeout(std::optional<std::chrono::steady_clock::time_point> deadline) {
  if (!deadline) return -1;
  const auto left =
      std::chrono::ceil<std::chrono::milliseconds>(*deadline - std::chrono::steady_clock::now());
  return static_cast<int>(std::clamp<std::int64_t>(left.count(), 0, INT_MAX));
}

}  // namespace

ZrWakeFlag::ZrWakeFlag() : event_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (!event_.IsOpen()) throw std::system_error(LastError(), "eventfd");
}

void ZrWakeFlag::Raise() noexcept {
  raised_ = true;
  const std::uint64_t one = 1;
  // Nobody reads the counter: the only failure left is a counter at its end, which is raised as
  // well.
  [[maybe_unused]] const ssize_t written = ::write(event_.Get(), &one, sizeof one);
}

// A raise beside it may leave the descriptor readable: then there is one more look than needed.
void ZrWakeFlag::Lower() noexcept {
  if (!raised_.exchange(false)) return;
  std::uint64_t count = 0;
  [[maybe_unused]] const ssize_t got = ::read(event_.Get(), &count, sizeof count);
}

namespace zr {

std::error_code MakePipe(Pipe& pipe) {
  pipe = {};
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) return LastError();
  Pipe made{ZrDescriptor(ends[0]), ZrDescriptor(ends[1])};
  if (!made.read.IsOpen() || !made.write.IsOpen()) return LastError();
  pipe = std::move(made);
  return {};
}

std::error_code SetNonBlocking(int descriptor) {
  const int flags = ::fcntl(descriptor, F_GETFL);
  if (flags < 0 || ::fcntl(descriptor, F_SETFL, flags | O_NONBLOCK) != 0) return LastError();
  return {};
}

PipeTransfer ReadPipe(int descriptor, std::span<char> into) {
  for (;;) {
    const ssize_t count = ::read(descriptor, into.data(), into.size());
    if (count > 0) return {PipeResult::kMoved, static_cast<std::size_t>(count)};
    if (count < 0 && errno == EINTR) continue;
    if (count < 0 && errno == EAGAIN) return {PipeResult::kBlocked, 0};
    return {count == 0 ? PipeResult::kClosed : PipeResult::kFailed, 0};
  }
}

std::size_t PendingBytes(int descriptor) {
  int count = 0;
  return ::ioctl(descriptor, FIONREAD, &count) == 0 && count > 0 ? static_cast<std::size_t>(count)
                                                                 : 0;
}

bool HasWriter(int readEnd, std::chrono::milliseconds patience) {
  pollfd end{readEnd, 0, 0};
  return readEnd >= 0 && ::poll(&end, 1, static_cast<int>(patience.count())) == 0;
}

PipeTransfer WritePipe(int descriptor, std::string_view bytes) {
  // Without a reader the write raises SIGPIPE, and the host's disposition is not ours to change.
  ZrSigPipeGuard guard;
  for (;;) {
    const ssize_t count = ::write(descriptor, bytes.data(), bytes.size());
    if (count > 0) return {PipeResult::kMoved, static_cast<std::size_t>(count)};
    if (count < 0 && errno == EINTR) continue;
    if (count < 0 && errno == EAGAIN) return {PipeResult::kBlocked, 0};
    if (count == 0 || errno != EPIPE) return {PipeResult::kFailed, 0};
    guard.BrokenPipe();
    return {PipeResult::kClosed, 0};
  }
}

bool PollDescriptors(std::span<PollItem> items,
                     std::optional<std::chrono::steady_clock::time_point> deadline) {
  constexpr std::size_t kMost = 8;
  std::array<pollfd, kMost> polled{};
  const std::size_t count = std::min(items.size(), kMost);
  for (std::size_t i = 0; i < count; ++i) {
    polled[i].fd = items[i].descriptor;
    polled[i].events = items[i].forWriting ? POLLOUT : POLLIN;
  }
  int ready;
  do {
    ready = ::poll(polled.data(), static_cast<nfds_t>(count), PollTimeout(deadline));
  } while (ready < 0 && errno == EINTR);
  for (std::size_t i = 0; i < count; ++i) items[i].ready = ready > 0 && polled[i].revents != 0;
  return ready > 0;
}

}  // namespace zr
