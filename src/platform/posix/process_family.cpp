#include "platform/posix/process_family.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/descriptor.h"
#include "platform/process.h"

namespace {

/// The first bytes of a file of the system's; empty when it cannot be read.
std::string ReadStatus(const std::string& path) {
  const ZrDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  std::string text;
  std::array<char, 4096> piece;
  for (;;) {
    const ssize_t count = file.IsOpen() ? ::read(file.Get(), piece.data(), piece.size()) : 0;
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return text;
    text.append(piece.data(), static_cast<std::size_t>(count));
  }
}

/// Calls `visit` with every entry of the directory that is a number.
template <class Visit>
void ForEachNumber(const std::string& directory, Visit visit) {
  ZrDescriptor folder(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  const std::unique_ptr<DIR, int (*)(DIR*)> opened(
      folder.IsOpen() ? ::fdopendir(folder.Get()) : nullptr, &::closedir);
  if (opened == nullptr) return;
  folder.Release();
  while (const dirent* entry = ::readdir(opened.get())) {
    const std::string_view name = entry->d_name;
    int number = 0;
    const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), number);
    if (error == std::errc() && end == name.data() + name.size()) visit(number);
  }
}

std::string Place(int process) { return "/proc/" + std::to_string(process); }

struct Status {
  int parent = 0;
  std::uint64_t begun = 0;
};

std::optional<Status> StatusOf(int process) {
  const std::string text = ReadStatus(Place(process) + "/stat");
  // "id (name) state parent ...": the name may hold anything, the fields behind it are numbers.
  const std::size_t name = text.rfind(')');
  if (name == std::string::npos) return std::nullopt;
  constexpr int kParent = 4;
  constexpr int kBegun = 22;
  Status status;
  std::string_view rest = std::string_view(text).substr(name + 1);
  for (int field = 3; field <= kBegun; ++field) {
    rest.remove_prefix(std::min(rest.find_first_not_of(' '), rest.size()));
    const std::size_t end = std::min(rest.find(' '), rest.size());
    if (field == kParent) std::from_chars(rest.data(), rest.data() + end, status.parent);
    if (field == kBegun) std::from_chars(rest.data(), rest.data() + end, status.begun);
    rest.remove_prefix(end);
  }
  return status;
}

/// Signals the process if it is the one that began then, and no other that got its number.
void SignalProcess(int process, std::uint64_t begun, int number) {
  const ZrDescriptor handle(static_cast<int>(::syscall(SYS_pidfd_open, process, 0)));
  if (!handle.IsOpen() && errno == ESRCH) return;
  const std::optional<Status> status = StatusOf(process);
  if (!status || status->begun != begun) return;
  if (handle.IsOpen())
    ::syscall(SYS_pidfd_send_signal, handle.Get(), number, nullptr, 0);
  else
    ::kill(process, number);  // no descriptor left for the handle
}

}  // namespace

bool ZrProcessFamily::Gather(int first) {
  bool grew = GatherChildrenOf(first);
  // Grows meanwhile, by the children of its own entries.
  for (std::size_t i = 0; i < members_.size(); ++i) {
    const Member member = members_[i];
    const std::optional<Status> status = StatusOf(member.id);
    if (status && status->begun == member.begun) grew = GatherChildrenOf(member.id) || grew;
  }
  return grew;
}

bool ZrProcessFamily::GatherChildrenOf(int parent) {
  bool grew = false;
  const std::string threads = Place(parent) + "/task";
  ForEachNumber(threads, [&](int thread) {
    const std::string list = ReadStatus(threads + "/" + std::to_string(thread) + "/children");
    const char* at = list.data();
    const char* const end = at + list.size();
    for (int child = 0; at < end; ++at) {
      const auto read = std::from_chars(at, end, child);
      if (read.ec != std::errc()) break;
      at = read.ptr;
      const std::optional<Status> status = StatusOf(child);
      if (!status || status->parent != parent) continue;
      const bool known = std::any_of(members_.begin(), members_.end(), [&](const Member& member) {
        return member.id == child && member.begun == status->begun;
      });
      if (known) continue;
      members_.push_back({child, status->begun});
      grew = true;
    }
  });
  return grew;
}

void ZrProcessFamily::Signal(int number, int exceptGroup) const {
  for (const Member& member : members_)
    if (::getpgid(member.id) != exceptGroup) SignalProcess(member.id, member.begun, number);
}

namespace zr {

void KillHoldersOf(int pipe) {
  struct stat status {};
  if (::fstat(pipe, &status) != 0 || !S_ISFIFO(status.st_mode)) return;
  const std::string held = "pipe:[" + std::to_string(status.st_ino) + "]";
  ForEachNumber("/proc", [&](int process) {
    if (process == ::getpid()) return;
    const std::optional<Status> before = StatusOf(process);
    if (!before) return;
    for (const char* standard : {"/fd/0", "/fd/1", "/fd/2"}) {
      std::array<char, 64> target;
      const std::string link = Place(process) + standard;
      const ssize_t length = ::readlink(link.c_str(), target.data(), target.size());
      if (length <= 0 || std::string_view(target.data(), static_cast<std::size_t>(length)) != held)
        continue;
      SignalProcess(process, before->begun, SIGKILL);
      return;
    }
  });
}

}  // namespace zr
