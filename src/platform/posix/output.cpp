#include "platform/output.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>

#include "platform/library.h"
#include "platform/posix/sigpipe.h"

namespace {

int WriteAll(int descriptor, std::string_view text) noexcept {
  while (!text.empty()) {
    const ssize_t written = ::write(descriptor, text.data(), text.size());
    if (written >= 0) {
      text.remove_prefix(static_cast<std::size_t>(written));
    } else if (errno == EAGAIN) {
      pollfd entry{descriptor, POLLOUT, 0};
      ::poll(&entry, 1, -1);
    } else if (errno != EINTR) {
      return errno;
    }
  }
  return 0;
}

bool IsFull(int error) { return error == ENOSPC || error == EDQUOT || error == EFBIG; }

// Set before the first write to a terminal that could not be opened anew.
std::atomic<bool> mayBlock{false};

bool TakesNow(int descriptor) noexcept {
  pollfd entry{descriptor, POLLOUT, 0};
  return ::poll(&entry, 1, 0) > 0;
}

}  // namespace

namespace zr {

int WriteOutput(std::string_view text) noexcept { return WriteAll(STDOUT_FILENO, text); }

int WriteErrorText(std::string_view text) noexcept { return WriteAll(STDERR_FILENO, text); }

}  // namespace zr

bool ZrLineSink::MayBlock() noexcept { return mayBlock; }

int ZrLineSink::OpenFile(const std::string& path, ZrLineSink& sink) {
  struct stat status {};
  const bool fifo = ::stat(path.c_str(), &status) == 0 && S_ISFIFO(status.st_mode);
  // Opened for both, a FIFO waits for no reader, and survives one that goes.
  const int how = fifo ? O_RDWR : O_WRONLY | O_APPEND | O_CREAT;
  ZrDescriptor opened(::open(path.c_str(), how | O_NONBLOCK | O_CLOEXEC | O_NOCTTY, 0640));
  if (!opened.IsOpen()) return errno;
  sink = ZrLineSink();
  sink.twin_ = std::move(opened);
  return 0;
}

// What the stream is may change between two batches: a host may put another file in its place.
ZrLineSink::Way ZrLineSink::Prepare() noexcept {
  if (twin_.IsOpen() || standard_ < 0) return Way::kWrite;
  struct stat status {};
  if (::fstat(standard_, &status) != 0) return Way::kWrite;
  if (S_ISSOCK(status.st_mode)) return Way::kSend;
  const bool pipe = S_ISFIFO(status.st_mode);
  if (!pipe && !(S_ISCHR(status.st_mode) && ::isatty(standard_) == 1)) return Way::kWrite;
  if ((::fcntl(standard_, F_GETFL) & O_NONBLOCK) != 0) return Way::kWrite;
  const std::string_view place = standard_ == 1 ? "/proc/self/fd/1" : "/proc/self/fd/2";
  twin_ = ZrDescriptor(::open(place.data(), O_WRONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
  if (twin_.IsOpen()) return Way::kWrite;
  if (!pipe && !mayBlock.exchange(true)) zr::StayLoaded();
  return Way::kPieces;
}

ZrLineSink::Result ZrLineSink::Write(std::string_view bytes) noexcept {
  const Way way = Prepare();
  const int descriptor = WaitDescriptor();
  zr::ZrSigPipeGuard guard;
  Result result;
  while (result.status == Status::kTaken && result.count < bytes.size()) {
    std::string_view rest = bytes.substr(result.count);
    if (way == Way::kPieces && !TakesNow(descriptor)) {
      result.status = Status::kBlocked;
      break;
    }
    if (way == Way::kPieces) rest = rest.substr(0, PIPE_BUF);
    const ssize_t count = way == Way::kSend ? ::send(descriptor, rest.data(), rest.size(),
                                                     MSG_DONTWAIT | MSG_NOSIGNAL)
                                            : ::write(descriptor, rest.data(), rest.size());
    if (count >= 0) {
      result.count += static_cast<std::size_t>(count);
    } else if (errno == EAGAIN) {
      result.status = Status::kBlocked;
    } else if (errno != EINTR) {
      result.status = IsFull(errno) ? Status::kFull : Status::kLost;
      result.error = errno;
      if (errno == EPIPE) guard.BrokenPipe();
    }
  }
  // Not kept open: the reader of a pipe is to see its end when the process closes the stream.
  if (standard_ >= 0 && result.status != Status::kBlocked) twin_.Close();
  return result;
}
