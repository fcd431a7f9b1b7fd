#include "tests/support/run.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>
#include <utility>

namespace zrtest {

BackgroundProgram::BackgroundProgram(const std::vector<std::string>& arguments,
                                     const std::optional<std::string>& input,
                                     const std::vector<std::string>& environment) {
  std::vector<char*> words;
  for (const std::string& word : arguments) {
    words.push_back(const_cast<char*>(word.c_str()));
  }
  words.push_back(nullptr);
  std::vector<char*> entries;
  for (const std::string& entry : environment) {
    entries.push_back(const_cast<char*>(entry.c_str()));
  }
  for (char** entry = environ; *entry != nullptr; ++entry) {
    entries.push_back(*entry);
  }
  entries.push_back(nullptr);

  const std::string in = files_.Write("in", input.value_or(""));
  int open[2] = {-1, -1};
  if (!input && pipe2(open, O_CLOEXEC) != 0) {
    throw std::runtime_error("no pipe");
  }
  const std::string out = files_.Path("out");
  const std::string err = files_.Path("err");
  posix_spawn_file_actions_t streams;
  posix_spawn_file_actions_init(&streams);
  if (input) {
    posix_spawn_file_actions_addopen(&streams, 0, in.c_str(), O_RDONLY, 0);
  } else {
    posix_spawn_file_actions_adddup2(&streams, open[0], 0);
    input_ = open[1];
  }
  posix_spawn_file_actions_addopen(&streams, 1, out.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
  posix_spawn_file_actions_addopen(&streams, 2, err.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
  const int failure = posix_spawnp(&id_, words[0], &streams, nullptr, words.data(), entries.data());
  posix_spawn_file_actions_destroy(&streams);
  if (!input) {
    close(open[0]);
  }
  if (failure != 0) {
    throw std::runtime_error("cannot run " + arguments.at(0));
  }
  // The C library of this age declares pidfd_open without C linkage.
  watch_ = static_cast<int>(syscall(SYS_pidfd_open, id_, 0));
}

BackgroundProgram::~BackgroundProgram() {
  EndInput();
  if (status_ < 0) {
    kill(id_, SIGKILL);
    WaitForEnd();
  }
  close(watch_);
}

void BackgroundProgram::EndInput() {
  if (input_ >= 0) {
    close(std::exchange(input_, -1));
  }
}

void BackgroundProgram::Signal(int number) const {
  if (status_ < 0) {
    kill(id_, number);
  }
}

bool BackgroundProgram::WaitForEnd(std::chrono::seconds limit) {
  if (status_ >= 0) {
    return true;
  }
  pollfd ended{watch_, POLLIN, 0};
  if (poll(&ended, 1, static_cast<int>(limit.count() * 1000)) != 1) {
    return false;
  }
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
