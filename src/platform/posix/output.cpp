#include "platform/output.h"

#include <errno.h>
#include <poll.h>
#include <sys/uio.h>
#include <unistd.h>

#include "platform/posix/sigpipe.h"

namespace {

constexpr int kStuckMilliseconds = 2000;

// A pipe may take a long text in parts, so the rest follows; what is no longer than PIPE_BUF goes
// as a whole and is never mixed with another writer's.
bool WriteBoth(int descriptor, std::string_view text, std::string_view end) noexcept {
  zr::ZrSigPipeGuard guard;
  while (!text.empty() || !end.empty()) {
    iovec parts[2] = {{const_cast<char*>(text.data()), text.size()},
                      {const_cast<char*>(end.data()), end.size()}};
    const ssize_t written = ::writev(descriptor, parts, 2);
    if (written < 0) {
      if (errno == EINTR) continue;
      if (errno == EPIPE) guard.BrokenPipe();
      if (errno != EAGAIN) return false;
      pollfd entry{descriptor, POLLOUT, 0};
      if (::poll(&entry, 1, kStuckMilliseconds) == 0) return false;
      continue;
    }
    const auto count = static_cast<std::size_t>(written);
    if (count < text.size()) {
      text.remove_prefix(count);
    } else {
      end.remove_prefix(count - text.size());
      text = {};
    }
  }
  return true;
}

}  // namespace

namespace zr {

bool WriteOutputLine(std::string_view text) noexcept {
  return WriteBoth(STDOUT_FILENO, text, "\n");
}

bool WriteErrorLine(std::string_view text) noexcept { return WriteBoth(STDERR_FILENO, text, "\n"); }

bool WriteOutput(std::string_view text) noexcept { return WriteBoth(STDOUT_FILENO, text, {}); }

}  // namespace zr
