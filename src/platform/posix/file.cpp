// Opening beneath a directory: the kernel resolves the whole path with one call that cannot leave
// the directory (openat2), so a link that is swapped meanwhile changes nothing. That call also
// refuses absolute links that end inside, and old kernels do not have it; then the file is opened
// without reading rights first, and the place where the descriptor really is decides.

#include "platform/file.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <limits>

namespace {

// Without O_NONBLOCK a FIFO would hold the thread until somebody writes to it.
constexpr int kReadFlags = O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
// The place alone, without a right to the bytes.
constexpr int kPlaceFlags = O_PATH | O_CLOEXEC;

template <class Call>
int Retried(Call call) {
  int result = 0;
  do {
    result = call();
  } while (result < 0 && errno == EINTR);
  return result;
}

int OpenInside(int directory, const char* path, int flags, std::uint64_t resolve = 0) {
  open_how how{};
  how.flags = static_cast<std::uint64_t>(flags);
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS | resolve;
  return Retried(
      [&] { return static_cast<int>(::syscall(SYS_openat2, directory, path, &how, sizeof how)); });
}

// By the errno of an opening that failed.
void ThrowWhenNobodyLooked(const ZrDescriptor& opened) {
  if (opened.IsOpen()) return;
  if (errno == EMFILE || errno == ENFILE || errno == ENOMEM || errno == EIO) throw ZrCannotTell();
}

// The absolute path of an open descriptor; empty when the system does not tell.
std::string PlaceOf(int descriptor) {
  const std::string link = "/proc/self/fd/" + std::to_string(descriptor);
  std::array<char, 4097> text;
  const ssize_t length = ::readlink(link.c_str(), text.data(), text.size());
  if (length <= 0 || static_cast<std::size_t>(length) == text.size()) return {};
  return {text.data(), static_cast<std::size_t>(length)};
}

bool IsInside(const std::string& place, std::string directory) {
  if (place.empty() || directory.empty()) return false;
  if (place == directory) return true;
  if (!directory.ends_with('/')) directory += '/';
  return place.starts_with(directory);
}

ZrDescriptor OpenAndCheckPlace(int directory, const char* path, int flags) {
  ZrDescriptor place(Retried([&] { return ::openat(directory, path, kPlaceFlags); }));
  if (!place.IsOpen()) return {};
  errno = 0;  // leading out is no failure of the system
  if (!IsInside(PlaceOf(place.Get()), PlaceOf(directory))) return {};
  if (flags == kPlaceFlags) return place;
  // The very file that was checked, not its name, is opened for reading.
  const std::string same = "/proc/self/fd/" + std::to_string(place.Get());
  return ZrDescriptor(Retried([&] { return ::open(same.c_str(), flags); }));
}

bool HasParentPiece(std::string_view path) {
  while (!path.empty()) {
    const std::size_t end = std::min(path.find('/'), path.size());
    if (path.substr(0, end) == "..") return true;
    path.remove_prefix(std::min(end + 1, path.size()));
  }
  return false;
}

// The path to open inside a directory; nothing for one that names no file whatever is on disk. The
// texts of directory and path are thought of as joined, so separators at the path's start are just
// more of them.
std::optional<std::string> Inside(std::string_view path) {
  if (path.empty() || path.find('\0') != std::string_view::npos || HasParentPiece(path)) return {};
  path.remove_prefix(std::min(path.find_first_not_of('/'), path.size()));
  return path.empty() ? std::string(".") : std::string(path);
}

}  // namespace

namespace {

std::int64_t Nanoseconds(const timespec& time) {
  return std::int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

// What stands there itself, be it a link. A file system of another machine is asked anew.
bool LookAt(const char* path, struct statx& status) {
  constexpr int kFlags = AT_SYMLINK_NOFOLLOW | AT_STATX_FORCE_SYNC;
  return Retried([&] { return ::statx(AT_FDCWD, path, kFlags, STATX_BASIC_STATS, &status); }) == 0;
}

}  // namespace

std::shared_ptr<const ZrFile> ZrFile::FromDescriptor(ZrDescriptor descriptor) {
  struct stat status {};
  if (!descriptor.IsOpen() || ::fstat(descriptor.Get(), &status) != 0) return nullptr;
  const bool directory = S_ISDIR(status.st_mode);
  if (!directory && !S_ISREG(status.st_mode)) return nullptr;
  const ZrFile::Facts facts{.directory = directory,
                            .size = directory ? 0 : static_cast<std::uint64_t>(status.st_size),
                            .modified = Nanoseconds(status.st_mtim),
                            .device = status.st_dev,
                            .node = status.st_ino,
                            .changed = Nanoseconds(status.st_ctim),
                            .rights = status.st_mode,
                            .owner = status.st_uid,
                            .group = status.st_gid};
  return std::shared_ptr<const ZrFile>(new ZrFile(std::move(descriptor), facts));
}

std::shared_ptr<const ZrFile> ZrFile::OpenBeneath(std::string_view directory,
                                                  std::string_view path) {
  const std::shared_ptr<const ZrDirectory> start = ZrDirectory::Open(directory);
  return start == nullptr ? nullptr : start->OpenFile(path);
}

bool ZrFile::ExistsBeneath(std::string_view directory, std::string_view path) {
  return KindBeneath(directory, path) != zr::ZrPathKind::kMissing;
}

zr::ZrPathKind ZrFile::KindBeneath(std::string_view directory, std::string_view path) {
  const std::shared_ptr<const ZrDirectory> start = ZrDirectory::Open(directory);
  if (start == nullptr) return zr::ZrPathKind::kMissing;
  const auto found = FromDescriptor(start->OpenPath(path, kPlaceFlags));
  if (!found) return zr::ZrPathKind::kMissing;
  return found->IsDirectory() ? zr::ZrPathKind::kDirectory : zr::ZrPathKind::kRegular;
}

std::shared_ptr<const ZrFile> ZrFile::Open(const std::string& path) {
  if (path.empty() || path.find('\0') != std::string::npos) return nullptr;
  return FromDescriptor(ZrDescriptor(Retried([&] { return ::open(path.c_str(), kReadFlags); })));
}

std::optional<std::size_t> ZrFile::ReadAt(std::uint64_t offset, std::span<char> target) const {
  std::size_t filled = 0;
  if (offset > static_cast<std::uint64_t>(std::numeric_limits<off_t>::max())) return filled;
  while (filled < target.size()) {
    const ssize_t count = ::pread(descriptor_.Get(), target.data() + filled, target.size() - filled,
                                  static_cast<off_t>(offset + filled));
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return std::nullopt;
    if (count == 0) break;
    filled += static_cast<std::size_t>(count);
  }
  return filled;
}

std::optional<std::size_t> ZrFile::ReadAtHand(std::uint64_t offset, std::span<char> target) const {
  iovec piece{target.data(), target.size()};
  const auto count = Retried([&] {
    return static_cast<int>(
        ::preadv2(descriptor_.Get(), &piece, 1, static_cast<off_t>(offset), RWF_NOWAIT));
  });
  if (count < 0) return std::nullopt;
  return static_cast<std::size_t>(count);
}

bool ZrFile::IsStillAt(const std::string& path, std::size_t start) const {
  struct statx status {};
  int looks = 0;
  for (std::size_t end = path.find('/', start); end != path.npos; end = path.find('/', end + 1))
    if (++looks > kMostLooks || !LookAt(path.substr(0, end).c_str(), status) ||
        !S_ISDIR(status.stx_mode))
      return false;
  if (!LookAt(path.c_str(), status)) return false;
  const auto time = [](const statx_timestamp& from) {
    return Nanoseconds(timespec{.tv_sec = from.tv_sec, .tv_nsec = from.tv_nsec});
  };
  return facts_ == Facts{.directory = S_ISDIR(status.stx_mode),
                         .size = status.stx_size,
                         .modified = time(status.stx_mtime),
                         .device = makedev(status.stx_dev_major, status.stx_dev_minor),
                         .node = status.stx_ino,
                         .changed = time(status.stx_ctime),
                         .rights = status.stx_mode,
                         .owner = status.stx_uid,
                         .group = status.stx_gid};
}

namespace {

std::optional<ZrFile::Entry> EntryOf(int directory, const char* name) {
  using Kind = ZrFile::Entry::Kind;
  struct stat status {};
  if (::fstatat(directory, name, &status, AT_SYMLINK_NOFOLLOW) != 0) return {};
  Kind kind = Kind::kFile;
  if (S_ISDIR(status.st_mode))
    kind = Kind::kDirectory;
  else if (S_ISLNK(status.st_mode))
    kind = Kind::kLink;
  else if (!S_ISREG(status.st_mode))
    return {};
  return ZrFile::Entry{name, kind,
                       kind == Kind::kFile ? static_cast<std::uint64_t>(status.st_size) : 0,
                       Nanoseconds(status.st_mtim)};
}

}  // namespace

std::vector<ZrFile::Entry> ZrFile::Entries(std::size_t most) const {
  std::vector<Entry> entries;
  // A stream of its own: this object's place in the directory is shared by all who use it.
  const int own =
      Retried([&] { return ::openat(descriptor_.Get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC); });
  if (own < 0) return entries;
  const std::unique_ptr<DIR, int (*)(DIR*)> stream(::fdopendir(own), ::closedir);
  if (!stream) {
    ::close(own);
    return entries;
  }
  while (entries.size() < most) {
    const dirent* const found = ::readdir(stream.get());
    if (found == nullptr) break;
    const std::string_view name = found->d_name;
    if (name == "." || name == "..") continue;
    if (auto entry = EntryOf(own, found->d_name)) entries.push_back(std::move(*entry));
  }
  return entries;
}

// ---- Directories -------------------------------------------------------------------------------

std::shared_ptr<const ZrDirectory> ZrDirectory::Open(std::string_view directory) {
  if (directory.empty() || directory.find('\0') != std::string_view::npos) return nullptr;
  std::string path = zr::SystemDirectory(directory);
  ZrDescriptor start(
      Retried([&] { return ::open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC); }));
  ThrowWhenNobodyLooked(start);
  struct stat status {};
  if (!start.IsOpen() || ::fstat(start.Get(), &status) != 0) return nullptr;
  if (!path.ends_with('/')) path += '/';
  return std::shared_ptr<const ZrDirectory>(
      new ZrDirectory(std::move(start), std::move(path), status.st_dev, status.st_ino));
}

bool ZrDirectory::IsCurrent() const noexcept {
  struct stat status {};
  return ::stat(path_.c_str(), &status) == 0 && status.st_dev == device_ && status.st_ino == inode_;
}

std::shared_ptr<const ZrFile> ZrDirectory::OpenFile(std::string_view path) const {
  return ZrFile::FromDescriptor(OpenPath(path, kReadFlags));
}

ZrDescriptor ZrDirectory::OpenPath(std::string_view path, int flags) const {
  const auto inside = Inside(path);
  if (!inside) return {};
  ZrDescriptor file(OpenInside(descriptor_.Get(), inside->c_str(), flags));
  // EXDEV: a link led out, or only seemed to; ENOSYS and EPERM: the call is missing or filtered.
  if (!file.IsOpen() && (errno == EXDEV || errno == ENOSYS || errno == EPERM || errno == EAGAIN))
    file = OpenAndCheckPlace(descriptor_.Get(), inside->c_str(), flags);
  ThrowWhenNobodyLooked(file);
  return file;
}

ZrFileAtHand ZrDirectory::OpenFileAtHand(std::string_view path) const {
  using Answer = ZrFileAtHand::Answer;
  const auto inside = Inside(path);
  if (!inside) return {Answer::kNotThere};
  ZrDescriptor file(OpenInside(descriptor_.Get(), inside->c_str(), kReadFlags, RESOLVE_CACHED));
  if (!file.IsOpen())
    return {errno == ENOENT || errno == ENOTDIR ? Answer::kNotThere : Answer::kMustWait};
  auto opened = ZrFile::FromDescriptor(std::move(file));
  const Answer answer = opened == nullptr ? Answer::kNotThere : Answer::kFile;
  return {answer, std::move(opened)};
}

namespace zr {

std::string SystemDirectory(std::string_view storedDirectory) {
  std::string result(storedDirectory);
  std::replace(result.begin(), result.end(), '\\', '/');
  return result;
}

}  // namespace zr
