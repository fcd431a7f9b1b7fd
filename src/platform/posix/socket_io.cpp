// Moving bytes over sockets and waiting for them.

#include <errno.h>
#include <poll.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>

#include "platform/posix/sigpipe.h"
#include "platform/socket.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

ZrIoResult Done(ssize_t count) { return {ZrIoStatus::kDone, static_cast<std::size_t>(count), 0}; }

ZrIoResult Failure(int error) {
  switch (error) {
    case EAGAIN:
      return {ZrIoStatus::kWouldBlock, 0, error};
    case EPIPE:
    case ECONNRESET:
      return {ZrIoStatus::kClosed, 0, error};
    default:
      return {ZrIoStatus::kFailed, 0, error};
  }
}

// poll() with a time limit that interruptions do not prolong. Returns what poll() returns.
int PollUntil(std::span<pollfd> entries, milliseconds limit) {
  const bool bounded = limit >= milliseconds::zero();
  const auto deadline = steady_clock::now() + (bounded ? limit : milliseconds::zero());
  milliseconds left = limit;
  for (;;) {
    // A wait of more than a day is cut and then continued, as poll() counts in an int.
    const auto slice = std::min<milliseconds>(left, std::chrono::hours(24));
    const int ready =
        ::poll(entries.data(), entries.size(), bounded ? static_cast<int>(slice.count()) : -1);
    if (ready > 0 || (ready < 0 && errno != EINTR)) return ready;
    if (!bounded) continue;
    left = std::chrono::ceil<milliseconds>(deadline - steady_clock::now());
    if (left <= milliseconds::zero()) return 0;
  }
}

ZrWaitStatus WaitOne(int descriptor, short events, milliseconds limit) {
  if (descriptor < 0) return ZrWaitStatus::kFailed;
  pollfd entry{descriptor, events, 0};
  const int ready = PollUntil({&entry, 1}, limit);
  if (ready < 0 || (entry.revents & POLLNVAL) != 0) return ZrWaitStatus::kFailed;
  return ready == 0 ? ZrWaitStatus::kTimeout : ZrWaitStatus::kReady;
}

}  // namespace

namespace zr {

ZrIoResult SendBytes(int socket, std::string_view bytes) {
  ssize_t count = 0;
  do {
    count = ::send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
  } while (count < 0 && errno == EINTR);
  return count < 0 ? Failure(errno) : Done(count);
}

ZrIoResult SendPieces(int socket, std::span<const std::string_view> pieces) {
  std::array<iovec, kMostPieces> vectors;
  const std::size_t used = std::min(pieces.size(), kMostPieces);
  for (std::size_t i = 0; i < used; ++i)
    vectors[i] = {const_cast<char*>(pieces[i].data()), pieces[i].size()};
  msghdr message{};
  message.msg_iov = vectors.data();
  message.msg_iovlen = used;
  ssize_t count = 0;
  do {
    count = ::sendmsg(socket, &message, MSG_NOSIGNAL);
  } while (count < 0 && errno == EINTR);
  return count < 0 ? Failure(errno) : Done(count);
}

ZrIoResult SendFile(int socket, const ZrFile& file, std::uint64_t offset, std::size_t length) {
  // sendfile() has no flag like MSG_NOSIGNAL. On the host's threads the guard costs two short calls
  // for a large piece, on our own nothing.
  ZrSigPipeGuard guard;
  auto position = static_cast<off_t>(offset);
  ssize_t count = 0;
  do {
    count = ::sendfile(socket, file.Descriptor(), &position, length);
  } while (count < 0 && errno == EINTR);
  if (count >= 0) return Done(count);
  const int error = errno;
  if (error == EPIPE) guard.BrokenPipe();
  return Failure(error);
}

ZrIoResult ReceiveBytes(int socket, std::span<char> target) {
  ssize_t count = 0;
  do {
    count = ::recv(socket, target.data(), target.size(), 0);
  } while (count < 0 && errno == EINTR);
  if (count == 0) return {ZrIoStatus::kClosed, 0, 0};
  return count < 0 ? Failure(errno) : Done(count);
}

ZrIoResult DropUrgentByte(int socket) {
  char byte = 0;
  ssize_t count = 0;
  do {
    count = ::recv(socket, &byte, 1, MSG_OOB);
  } while (count < 0 && errno == EINTR);
  if (count > 0) return Done(count);
  // EINVAL: no urgent data, or it was taken already. Its mark says nothing about the stream.
  if (count == 0 || errno == EINVAL) return {ZrIoStatus::kWouldBlock, 0, EINVAL};
  return Failure(errno);
}

ZrWaitStatus WaitReadable(int descriptor, milliseconds limit) {
  return WaitOne(descriptor, POLLIN | POLLPRI, limit);
}

ZrWaitStatus WaitWritable(int descriptor, milliseconds limit) {
  return WaitOne(descriptor, POLLOUT, limit);
}

int WaitAnyReadable(std::span<const int> descriptors, milliseconds limit) {
  std::array<pollfd, kMostPieces> entries;
  const std::size_t used = std::min(descriptors.size(), kMostPieces);
  // poll() itself leaves negative descriptors out.
  for (std::size_t i = 0; i < used; ++i) entries[i] = {descriptors[i], POLLIN | POLLPRI, 0};
  if (PollUntil({entries.data(), used}, limit) <= 0) return -1;
  for (std::size_t i = 0; i < used; ++i)
    if (entries[i].revents != 0) return static_cast<int>(i);
  return -1;
}

}  // namespace zr
