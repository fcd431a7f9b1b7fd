#include "platform/filesystem.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <span>

#include "platform/file.h"

namespace {

int WriteWhole(int descriptor, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = ::write(descriptor, bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return errno;
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
  return 0;
}

// Makes the new name in the directory last beyond a power failure. A file system that cannot do
// this is no reason to fail.
void SyncDirectoryOf(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  const std::string directory = slash == std::string::npos ? "." : path.substr(0, slash + 1);
  const ZrDescriptor opened(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (opened.IsOpen()) ::fsync(opened.Get());
}

}  // namespace

namespace zr {

std::string AbsolutePath(std::string path) {
  if (path.starts_with('/')) return path;
  std::error_code failed;
  const std::string current = std::filesystem::current_path(failed).string();
  return failed ? path : current + (current.ends_with('/') ? "" : "/") + path;
}

ZrPathKind PathKind(const std::string& path) {
  struct stat status {};
  if (path.find('\0') != std::string::npos || ::stat(path.c_str(), &status) != 0)
    return ZrPathKind::kMissing;
  if (S_ISDIR(status.st_mode)) return ZrPathKind::kDirectory;
  return S_ISREG(status.st_mode) ? ZrPathKind::kRegular : ZrPathKind::kOther;
}

int CheckAccess(const std::string& path, ZrAccess access) {
  int mode = R_OK;
  if (access == ZrAccess::kWrite) mode = W_OK;
  if (access == ZrAccess::kEnter) mode = X_OK;
  return ::faccessat(AT_FDCWD, path.c_str(), mode, AT_EACCESS) == 0 ? 0 : errno;
}

std::optional<std::string> ReadToEnd(const std::string& path, std::size_t limit, int& error) {
  ZrDescriptor file;
  if (path != "-") {
    do {
      file = ZrDescriptor(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
    } while (!file.IsOpen() && errno == EINTR);
    if (!file.IsOpen()) {
      error = errno;
      return std::nullopt;
    }
  }
  const int descriptor = path == "-" ? STDIN_FILENO : file.Get();
  std::string bytes;
  for (;;) {
    constexpr std::size_t kPiece = 64 * 1024;
    const std::size_t filled = bytes.size();
    bytes.resize(filled + kPiece);
    const ssize_t count = ::read(descriptor, bytes.data() + filled, kPiece);
    bytes.resize(filled + static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    if (count == 0) return bytes;
    if (bytes.size() > limit) errno = EFBIG;
    if (bytes.size() > limit || (count < 0 && errno != EINTR && errno != EAGAIN)) {
      error = errno;
      return std::nullopt;
    }
    if (count < 0 && errno == EAGAIN) {
      pollfd entry{descriptor, POLLIN, 0};
      ::poll(&entry, 1, -1);
    }
  }
}

std::optional<std::string> ReadWholeFile(const std::string& path, std::size_t limit, int* error) {
  const auto fail = [error](int reason) -> std::optional<std::string> {
    if (error != nullptr) *error = reason;
    return std::nullopt;
  };
  errno = 0;
  const auto file = ZrFile::Open(path);
  if (file == nullptr) return fail(errno != 0 ? errno : EINVAL);
  if (file->IsDirectory()) return fail(EISDIR);
  limit = std::min<std::size_t>(limit, std::size_t{1} << 40);  // so that sums below stay in range
  // One byte more than it had shows a file that grows meanwhile.
  const auto expected = std::min<std::uint64_t>(file->Size(), limit) + 1;
  std::string bytes(static_cast<std::size_t>(expected), '\0');
  std::size_t filled = 0;
  for (;;) {
    const auto count = file->ReadAt(filled, std::span(bytes).subspan(filled));
    if (!count) return fail(errno);
    filled += *count;
    if (filled > limit) return fail(EFBIG);
    if (filled < bytes.size()) break;
    bytes.resize(std::min(bytes.size() * 2, limit + 1));
  }
  bytes.resize(filled);
  return bytes;
}

int ReplaceFile(const std::string& path, std::string_view bytes, unsigned mode) {
  std::string temporary = path + ".XXXXXX";
  ZrDescriptor file(::mkostemp(temporary.data(), O_CLOEXEC));
  if (!file.IsOpen()) return errno;
  int error = ::fchmod(file.Get(), mode) == 0 ? 0 : errno;
  if (error == 0) error = WriteWhole(file.Get(), bytes);
  if (error == 0 && ::fsync(file.Get()) != 0) error = errno;
  file.Close();
  if (error == 0 && ::rename(temporary.c_str(), path.c_str()) != 0) error = errno;
  if (error != 0) {
    ::unlink(temporary.c_str());
    return error;
  }
  SyncDirectoryOf(path);
  return 0;
}

int RewriteFile(const std::string& path, std::string_view bytes, unsigned mode) {
  const std::unique_ptr<char, void (*)(void*)> target(::realpath(path.c_str(), nullptr),
                                                      &std::free);
  struct stat status {};
  if (target != nullptr && ::stat(target.get(), &status) == 0) mode = status.st_mode & 07777u;
  return ReplaceFile(target != nullptr ? target.get() : path, bytes, mode);
}

int MakeDirectories(const std::string& path, unsigned mode) {
  if (path.empty()) return ENOENT;
  for (std::size_t end = path.find('/', 1);; end = path.find('/', end + 1)) {
    const std::string piece = path.substr(0, end);
    if (::mkdir(piece.c_str(), mode) != 0 && errno != EEXIST) {
      // A directory above may be closed to us and still lead to one that is not.
      const int error = errno;
      if (PathKind(piece) != ZrPathKind::kDirectory) return error;
    }
    if (end == std::string::npos) break;
  }
  return PathKind(path) == ZrPathKind::kDirectory ? 0 : ENOTDIR;
}

std::vector<std::string> DirectoryNames(const std::string& path) {
  std::vector<std::string> names;
  ZrDescriptor folder(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  const std::unique_ptr<DIR, int (*)(DIR*)> directory(
      folder.IsOpen() ? ::fdopendir(folder.Get()) : nullptr, &::closedir);
  if (directory == nullptr) return names;
  folder.Release();
  while (const dirent* entry = ::readdir(directory.get())) {
    const std::string_view name = entry->d_name;
    if (name != "." && name != "..") names.emplace_back(name);
  }
  std::sort(names.begin(), names.end());
  return names;
}

int RemoveFile(const std::string& path) {
  return ::unlink(path.c_str()) == 0 || errno == ENOENT ? 0 : errno;
}

}  // namespace zr
