#include "platform/private_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <thread>

#include "platform/descriptor.h"

namespace zr {
namespace {

[[noreturn]] void Fail(const std::string& path) {
  throw std::system_error(errno, std::generic_category(), path);
}

bool WriteAll(int descriptor, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = write(descriptor, bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
  return fsync(descriptor) == 0;
}

}  // namespace

void WritePrivateFile(const std::string& path, std::string_view bytes) {
  const ZrDescriptor file(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
  if (!file.IsOpen() || !WriteAll(file.Get(), bytes)) Fail(path);
}

void MakePrivateFolder(const std::string& path) {
  if (mkdir(path.c_str(), 0700) != 0) Fail(path);
}

ZrDescriptor LockFolder(const std::string& path, std::chrono::milliseconds limit) {
  constexpr std::chrono::milliseconds kInterval{10};
  ZrDescriptor folder(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!folder.IsOpen()) Fail(path);
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (flock(folder.Get(), LOCK_EX | LOCK_NB) != 0) {
    if (errno != EWOULDBLOCK && errno != EINTR) Fail(path);
    if (std::chrono::steady_clock::now() >= deadline)
      throw std::system_error(std::make_error_code(std::errc::timed_out), path);
    std::this_thread::sleep_for(kInterval);
  }
  return folder;
}

}  // namespace zr
