#include "tests/support/run.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>

namespace zrtest {
namespace {

/// The texts and a null pointer behind them, as exec takes them.
std::vector<char*> Pointers(const std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  for (const std::string& text : texts) pointers.push_back(const_cast<char*>(text.c_str()));
  pointers.push_back(nullptr);
  return pointers;
}

}  // namespace

BackgroundProgram::BackgroundProgram(const std::vector<std::string>& arguments,
                                     const std::string& input,
                                     const std::vector<std::string>& environment) {
  std::vector<char*> entries = Pointers(environment);
  entries.pop_back();
  for (char** entry = environ; *entry != nullptr; ++entry) entries.push_back(*entry);
  entries.push_back(nullptr);
  const std::vector<char*> words = Pointers(arguments);
  const int in = open(files_.Write("in", input).c_str(), O_RDONLY | O_CLOEXEC);
  const auto create = [this](const char* name) {
    return open(files_.Path(name).c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  };
  const int streams[] = {in, create("out"), create("err")};
  const pid_t parent = getpid();
  id_ = fork();
  if (id_ == 0) {
    // A test program that is killed, as by its time limit, leaves nothing running behind.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(127);
    for (int i = 0; i < 3; ++i) dup2(streams[i], i);
    execvpe(words[0], words.data(), entries.data());
    _exit(127);
  }
  for (const int stream : streams) close(stream);
  if (id_ < 0) throw std::runtime_error("cannot run " + arguments.at(0));
  // The C library of this age declares pidfd_open without C linkage.
  watch_ = static_cast<int>(syscall(SYS_pidfd_open, id_, 0));
}

BackgroundProgram::~BackgroundProgram() {
  if (status_ < 0) {
    kill(id_, SIGKILL);
    WaitForEnd();
  }
  close(watch_);
}

void BackgroundProgram::Signal(int number) const {
  if (status_ < 0) kill(id_, number);
}

bool BackgroundProgram::WaitForEnd(std::chrono::seconds limit) {
  if (status_ >= 0) return true;
  pollfd ended{watch_, POLLIN, 0};
  if (poll(&ended, 1, static_cast<int>(limit.count() * 1000)) != 1) return false;
  int status = 0;
  waitpid(id_, &status, 0);
  status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return true;
}

RunResult RunProgram(const std::vector<std::string>& arguments, const std::string& input,
                     std::chrono::seconds limit) {
  BackgroundProgram program(arguments, input);
  program.WaitForEnd(limit);
  return {program.Status(), program.Output(), program.Errors()};
}

}  // namespace zrtest
