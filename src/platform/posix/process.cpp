#include "platform/process.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <new>
#include <utility>

#include "platform/pipe.h"
#include "platform/posix/process_family.h"

namespace {

using Deadline = std::optional<std::chrono::steady_clock::time_point>;

// How often a child is asked for its end where the system cannot report it.
constexpr std::chrono::milliseconds kEndPollInterval{10};
// A family that still grows after so many looks while it is frozen is not looked for any longer.
constexpr int kMostGatherings = 64;

std::error_code Error(int code) { return {code, std::generic_category()}; }

/// The pointer list that the system calls take; the texts stay with their owners.
template <class Texts>
std::vector<char*> Pointers(const std::string* first, const Texts& rest) {
  std::vector<char*> pointers;
  pointers.reserve(rest.size() + 2);
  // The system takes the texts as char* for historical reasons and never writes to them.
  if (first != nullptr) pointers.push_back(const_cast<char*>(first->c_str()));
  for (const std::string& text : rest) pointers.push_back(const_cast<char*>(text.c_str()));
  pointers.push_back(nullptr);
  return pointers;
}

/// Attributes of the child: a group of its own, nothing blocked, nothing ignored.
class Attributes {
 public:
  Attributes() {
    posix_spawnattr_init(&value_);
    sigset_t none;
    sigset_t all;
    sigemptyset(&none);
    sigfillset(&all);
    posix_spawnattr_setsigmask(&value_, &none);
    posix_spawnattr_setsigdefault(&value_, &all);
    posix_spawnattr_setpgroup(&value_, 0);
    posix_spawnattr_setflags(
        &value_, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
  }
  ~Attributes() { posix_spawnattr_destroy(&value_); }
  Attributes(const Attributes&) = delete;
  Attributes& operator=(const Attributes&) = delete;
  const posix_spawnattr_t* Get() const { return &value_; }

 private:
  posix_spawnattr_t value_;
};

/// Steps the child takes between its start and the program: its three descriptors, then no other.
class FileActions {
 public:
  FileActions() { posix_spawn_file_actions_init(&value_); }
  ~FileActions() { posix_spawn_file_actions_destroy(&value_); }
  FileActions(const FileActions&) = delete;
  FileActions& operator=(const FileActions&) = delete;
  const posix_spawn_file_actions_t* Get() const { return &value_; }

  int Standard(int source, int target) {
    if (source < 0)
      return posix_spawn_file_actions_addopen(&value_, target, "/dev/null", O_RDWR, 0);
    if (source <= STDERR_FILENO && source != target) {
      // An earlier step may already have replaced it.
      ZrDescriptor& copy = copies_[static_cast<std::size_t>(target)];
      copy = ZrDescriptor(::fcntl(source, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
      if (!copy.IsOpen()) return errno;
      source = copy.Get();
    }
    return posix_spawn_file_actions_adddup2(&value_, source, target);
  }
  int CloseOthers() { return posix_spawn_file_actions_addclosefrom_np(&value_, STDERR_FILENO + 1); }

 private:
  posix_spawn_file_actions_t value_;
  std::array<ZrDescriptor, 3> copies_;
};

bool IsExecutableFile(const std::string& file) {
  struct stat status {};
  return ::stat(file.c_str(), &status) == 0 && S_ISREG(status.st_mode) &&
         ::access(file.c_str(), X_OK) == 0;
}

}  // namespace

ZrEnvironment ZrEnvironment::OfThisProcess() {
  ZrEnvironment made;
  for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry)
    made.entries_.emplace_back(*entry);
  return made;
}

bool ZrEnvironment::Set(std::string_view name, std::string_view value) {
  constexpr std::string_view kNoName("=\0", 2);
  if (name.empty() || name.find_first_of(kNoName) != std::string_view::npos ||
      value.find('\0') != std::string_view::npos)
    return false;
  std::string entry;
  entry.reserve(name.size() + 1 + value.size());
  entry.append(name).append(1, '=').append(value);
  const auto sameName = [&](const std::string& other) {
    return other.compare(0, name.size() + 1, entry, 0, name.size() + 1) == 0;
  };
  const auto found = std::find_if(entries_.begin(), entries_.end(), sameName);
  if (found == entries_.end())
    entries_.push_back(std::move(entry));
  else
    *found = std::move(entry);
  return true;
}

std::optional<std::string_view> ZrEnvironment::Get(std::string_view name) const {
  for (const std::string& entry : entries_)
    if (entry.size() > name.size() && entry[name.size()] == '=' && entry.starts_with(name))
      return std::string_view(entry).substr(name.size() + 1);
  return std::nullopt;
}

ZrProcess::ZrProcess() = default;

ZrProcess::ZrProcess(ZrProcess&& other) noexcept
    : pid_(std::exchange(other.pid_, -1)),
      end_(std::move(other.end_)),
      family_(std::move(other.family_)) {}

ZrProcess& ZrProcess::operator=(ZrProcess&& other) noexcept {
  if (this != &other) {
    ZrProcess old(std::move(*this));
    pid_ = std::exchange(other.pid_, -1);
    end_ = std::move(other.end_);
    family_ = std::move(other.family_);
  }
  return *this;
}

ZrProcess::~ZrProcess() {
  if (!IsHeld()) return;
  Kill();
  Collect();
}

std::error_code ZrProcess::Start(const ZrProcessStart& start) {
  if (start.program.empty()) return Error(ENOENT);
  if (start.program.find('\0') != std::string::npos) return Error(EINVAL);
  const auto file =
      zr::FindProgram(start.program, start.environment->Get("PATH").value_or("/usr/bin:/bin"));
  if (!file) return Error(ENOENT);

  FileActions actions;
  const int sources[] = {start.standardInput, start.standardOutput, start.standardError};
  for (int target = STDIN_FILENO; target <= STDERR_FILENO; ++target)
    if (const int failed = actions.Standard(sources[target], target)) return Error(failed);
  if (const int failed = actions.CloseOthers()) return Error(failed);

  const std::vector<char*> arguments = Pointers(&start.program, start.arguments);
  const std::vector<char*> variables = Pointers(nullptr, start.environment->entries());
  const Attributes attributes;
  pid_t pid = -1;
  if (const int failed = ::posix_spawn(&pid, file->c_str(), actions.Get(), attributes.Get(),
                                       arguments.data(), variables.data()))
    return Error(failed);
  pid_ = pid;
  // Only this object waits for the child, so the id cannot have passed to another one yet.
  // (The C library's own declaration lacks C linkage in some releases.)
  end_ = ZrDescriptor(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
  return {};
}

bool ZrProcess::HasEnded() const noexcept {
  siginfo_t info{};
  const int result = ::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT);
  // A host that ignores SIGCHLD or collects any child has taken the result: ended, result unknown.
  if (result != 0) return errno == ECHILD;
  return info.si_pid == pid_;
}

bool ZrProcess::WaitForEnd(Deadline deadline) const {
  if (end_.IsOpen()) {
    zr::PollItem end{end_.Get()};
    return zr::PollDescriptors({&end, 1}, deadline);
  }
  while (!HasEnded()) {
    const auto now = std::chrono::steady_clock::now();
    if (deadline && now >= *deadline) return false;
    const auto next = now + kEndPollInterval;
    zr::PollDescriptors({}, deadline ? std::min(next, *deadline) : next);
  }
  return true;
}

// A child that ended but was not collected keeps its group's number. One that the host collected
// does not: the number may be another group's by now, so it is left alone.
void ZrProcess::SignalGroup(int number) const noexcept {
  siginfo_t info{};
  if (!IsHeld()) return;
  if (::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) != 0) return;
  ::kill(-pid_, number);
  if (::getpgid(pid_) != pid_) ::kill(pid_, number);  // it has joined another group
}

// Gathers before it signals: who is orphaned is not found any more.
void ZrProcess::SignalFamily(int number) {
  if (!family_) family_ = std::make_unique<ZrProcessFamily>();
  family_->Gather(pid_);
  SignalGroup(number);
  family_->Signal(number, pid_);
}

void ZrProcess::Terminate() noexcept {
  if (!IsHeld()) return;
  try {
    SignalFamily(SIGTERM);
  } catch (const std::bad_alloc&) {
    SignalGroup(SIGTERM);
  }
}

// Frozen processes start no others, so that the last look misses nobody.
void ZrProcess::Kill() noexcept {
  if (!IsHeld()) return;
  try {
    SignalFamily(SIGSTOP);
    for (int round = 0; round < kMostGatherings && family_->Gather(pid_); ++round)
      family_->Signal(SIGSTOP, pid_);
    family_->Signal(SIGKILL, pid_);
  } catch (const std::bad_alloc&) {
    // Those of the group end all the same.
  }
  SignalGroup(SIGKILL);
}

std::optional<int> ZrProcess::Collect() noexcept {
  if (!IsHeld()) return std::nullopt;
  int status = 0;
  pid_t result;
  do {
    result = ::waitpid(pid_, &status, 0);
  } while (result < 0 && errno == EINTR);
  const bool known = result == pid_;
  Abandon();
  if (!known) return std::nullopt;
  return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

void ZrProcess::Abandon() noexcept {
  pid_ = -1;
  end_.Close();
  family_.reset();
}

namespace zr {

ZrDescriptor StandardErrorCopy() {
  return ZrDescriptor(::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
}

std::optional<std::string> FindProgram(std::string_view program, std::string_view path) {
  if (program.empty()) return std::nullopt;
  if (program.find('/') != std::string_view::npos) return std::string(program);
  for (;;) {
    const std::size_t colon = path.find(':');
    std::string file(path.substr(0, colon));
    if (file.empty()) file.push_back('.');
    file.append(1, '/').append(program);
    if (IsExecutableFile(file)) return file;
    if (colon == std::string_view::npos) return std::nullopt;
    path.remove_prefix(colon + 1);
  }
}

}  // namespace zr
