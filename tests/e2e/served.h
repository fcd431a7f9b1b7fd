#pragma once
// The program `velkoro serve`, run as a user runs it, on ports that the system chooses.

#include <map>
#include <string>
#include <vector>

#include "tests/support/run.h"

namespace zrtest {

enum class Semantics { kMinimal, kStandard };

/// One running server; ended with the object. Serves `folder` with the certificate of the tests.
class Served {
 public:
  /// The protocols get one server each; further options of the command may follow.
  explicit Served(const TemporaryFolder& folder,
                  const std::vector<std::string>& protocols = {"https"},
                  const std::vector<std::string>& options = {},
                  Semantics semantics = Semantics::kMinimal);

  /// The port of a protocol's server.
  int Port(const std::string& protocol) const { return ports_.at(protocol); }
  /// protocol://127.0.0.1:PORT + path
  std::string Url(const std::string& protocol, const std::string& path) const;
  /// curl with that URL; the certificate is checked. Status and body are those of the answer.
  RunResult Curl(const std::string& protocol, const std::string& path,
                 const std::vector<std::string>& options = {}) const;
  /// The access-log lines so far.
  std::vector<std::string> Log() const;
  bool WaitForLog(std::size_t lines) const;
  /// Sends SIGTERM and returns the exit status, -1 when it did not end.
  int Stop();
  BackgroundProgram& Program() { return program_; }

 private:
  BackgroundProgram program_;
  std::map<std::string, int> ports_;
};

/// Words of a curl command that checks the certificate of the tests and shows no progress.
std::vector<std::string> CurlWords(const std::vector<std::string>& more);

/// The answer 200 with that page; the head lines of a program may follow, each with its CR LF.
std::string Answer(const std::string& page, const std::string& lines = {});

/// Bytes that differ from place to place, so that a shifted or repeated piece shows.
std::string Pattern(std::size_t size);

}  // namespace zrtest
