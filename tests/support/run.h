#pragma once
// Runs real programs (curl, openssl, our own) by argument vector, never through a shell. Their
// streams are files, so no amount of output can block them.

#include <chrono>
#include <string>
#include <vector>

#include "tests/support/temporary_folder.h"

namespace zrtest {

/// A program running beside the test; ended and reaped with the object, killed with the thread that
/// started it. The first argument is the program, looked up on PATH when it has no "/"; one that
/// cannot be run ends with status 127.
class BackgroundProgram {
 public:
  /// The environment entries ("NAME=value") come before those of the test program.
  explicit BackgroundProgram(const std::vector<std::string>& arguments,
                             const std::string& input = {},
                             const std::vector<std::string>& environment = {});
  ~BackgroundProgram();
  BackgroundProgram(const BackgroundProgram&) = delete;
  BackgroundProgram& operator=(const BackgroundProgram&) = delete;

  std::string Output() const { return ReadFile(files_.Path("out")); }
  std::string Errors() const { return ReadFile(files_.Path("err")); }
  void Signal(int number) const;
  /// True once the program has ended; false when it still runs after the limit.
  bool WaitForEnd(std::chrono::seconds limit = std::chrono::seconds(60));
  /// The exit status, or 128 + the number of the signal that ended it; -1 while it runs.
  int Status() const { return status_; }
  int Id() const { return id_; }

 private:
  TemporaryFolder files_;
  int id_ = -1;
  int watch_ = -1;
  int status_ = -1;
};

struct RunResult {
  int status = -1;
  std::string out;
  std::string err;
};

/// Runs a program to its end. One that outlives the limit is ended: status -1.
RunResult RunProgram(const std::vector<std::string>& arguments, const std::string& input = {},
                     std::chrono::seconds limit = std::chrono::seconds(60));

}  // namespace zrtest
