#include "platform/detached.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <optional>

#include "platform/pipe.h"
#include "platform/process.h"

// A detached program is a grandchild: the child in between ends at once and is reaped here, so the
// system's first process inherits the program and reaps it whenever it ends. Between fork and exec
// the children of a process with threads may only make calls that are safe in signal handlers.

namespace zr {
namespace {

void ResetSignals() {
  for (int number = 1; number < NSIG; ++number)
    signal(number, SIG_DFL);  // fails for those that cannot be changed, which need no change
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
}

/// In the grandchild. The report pipe closes by itself when exec succeeds.
[[noreturn]] void Become(char* const* words, int report) {
  ResetSignals();
  setsid();
  const int null = open("/dev/null", O_RDWR);
  if (null >= 0) {
    dup2(null, 0);
    dup2(null, 1);
    dup2(null, 2);
    // The report moves to 3, so that all above it can be closed, whatever flags they carry.
    dup3(report, 3, O_CLOEXEC);
    close_range(4, ~0U, 0);
    execv(words[0], words);
    const char failed = 1;
    [[maybe_unused]] const ssize_t told = write(3, &failed, 1);
  }
  _exit(127);
}

}  // namespace

bool StartDetachedProgram(std::string_view program, const std::vector<std::string>& arguments) {
  const char* path = std::getenv("PATH");
  const auto file = FindProgram(program, path != nullptr ? path : "/usr/local/bin:/usr/bin:/bin");
  if (!file) return false;
  std::vector<char*> words{const_cast<char*>(file->c_str())};
  for (const std::string& word : arguments) words.push_back(const_cast<char*>(word.c_str()));
  words.push_back(nullptr);
  Pipe report;
  if (MakePipe(report)) return false;
  const pid_t between = fork();
  if (between == 0) {
    const pid_t detached = fork();
    if (detached == 0) Become(words.data(), report.write.Get());
    _exit(detached < 0 ? 1 : 0);
  }
  report.write.Close();
  int status = 0;
  pid_t reaped = -1;
  while (between > 0 && (reaped = waitpid(between, &status, 0)) < 0 && errno == EINTR) {
  }
  // A host that ignores SIGCHLD has its children reaped by the system: no status, and no failure.
  const bool forked =
      between > 0 && (reaped < 0 || (WIFEXITED(status) && WEXITSTATUS(status) == 0));
  char failed = 0;
  ssize_t count = 0;
  while ((count = read(report.read.Get(), &failed, 1)) < 0 && errno == EINTR) {
  }
  return forked && count == 0;
}

}  // namespace zr
