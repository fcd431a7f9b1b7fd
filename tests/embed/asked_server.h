#pragma once
// A server in the test's own program, and curl to ask it.

#include <future>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/run.h"
#include "velkoro/server.h"

namespace zrtest {

inline velkoro::ServerOptions AnyPort(std::string directory = {}) {
  return {.listen = {"http://127.0.0.1:0"}, .directory = std::move(directory)};
}

/// curl's output for a path of the server: the body, and behind it the status in brackets.
inline std::string Ask(const velkoro::Server& server, const std::string& path,
                       std::vector<std::string> options = {}) {
  options.insert(options.begin(), {"curl", "-sk", "--max-time", "20", "-w", "[%{http_code}]"});
  options.push_back(server.Url() + path);
  return RunProgram(options).out;
}

/// For a handler: until its peer has gone or the server has given its answer up.
inline void WaitUntilGone(const velkoro::Request& request) {
  const auto gone = std::make_shared<std::promise<void>>();
  request.OnGone([gone] { gone->set_value(); });
  gone->get_future().wait();
}

}  // namespace zrtest
