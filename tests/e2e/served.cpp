#include "tests/e2e/served.h"

#include <signal.h>

#include <regex>
#include <sstream>
#include <stdexcept>

#include "tests/support/wait.h"

namespace zrtest {
namespace {

std::vector<std::string> Words(const TemporaryFolder& folder,
                               const std::vector<std::string>& protocols,
                               const std::vector<std::string>& options, Semantics semantics) {
  std::vector<std::string> words = {VELKORO_PROGRAM, "serve", folder.Path()};
  if (semantics == Semantics::kMinimal) words.push_back("--minimal");
  for (const std::string& protocol : protocols) {
    words.insert(words.end(), {"--listen", protocol + "://127.0.0.1:0"});
  }
  words.insert(words.end(), {"--certificate", TestCertificate().certificate, "--private-key",
                             TestCertificate().privateKey});
  words.insert(words.end(), options.begin(), options.end());
  return words;
}

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

}  // namespace

Served::Served(const TemporaryFolder& folder, const std::vector<std::string>& protocols,
               const std::vector<std::string>& options, Semantics semantics)
    : program_(Words(folder, protocols, options, semantics)) {
  const std::regex serving(" on ([a-z]+)://127\\.0\\.0\\.1:([0-9]+)/");
  const bool listens = WaitFor([&] {
    for (const std::string& line : Lines(program_.Output())) {
      std::smatch found;
      if (std::regex_search(line, found, serving)) ports_[found[1]] = std::stoi(found[2]);
    }
    return ports_.size() == protocols.size() || program_.WaitForEnd(std::chrono::seconds(0));
  });
  if (!listens || ports_.size() != protocols.size()) {
    throw std::runtime_error("no server: " + program_.Output() + program_.Errors());
  }
}

std::string Served::Url(const std::string& protocol, const std::string& path) const {
  return protocol + "://127.0.0.1:" + std::to_string(Port(protocol)) + path;
}

RunResult Served::Curl(const std::string& protocol, const std::string& path,
                       const std::vector<std::string>& options) const {
  std::vector<std::string> words = options;
  words.push_back(Url(protocol, path));
  return RunProgram(CurlWords(words));
}

std::vector<std::string> Served::Log() const {
  std::vector<std::string> lines = Lines(program_.Output());
  std::erase_if(lines, [](const std::string& line) { return line.starts_with("velkoro: "); });
  return lines;
}

bool Served::WaitForLog(std::size_t lines) const {
  return WaitFor([&] { return Log().size() >= lines; });
}

int Served::Stop() {
  program_.Signal(SIGTERM);
  program_.WaitForEnd(std::chrono::seconds(20));
  return program_.Status();
}

std::vector<std::string> CurlWords(const std::vector<std::string>& more) {
  std::vector<std::string> words = {
      "curl", "--silent",     "--show-error", "--max-time",
      "50",   "--path-as-is", "--cacert",     TestCertificate().certificate};
  words.insert(words.end(), more.begin(), more.end());
  return words;
}

std::string Answer(const std::string& page, const std::string& lines) {
  return "HTTP/1.1 200 OK\r\nServer: velkoro/1.28.1(96)\r\nContent-Length: " +
         std::to_string(page.size()) + "\r\n" + lines + "\r\n" + page;
}

std::string Pattern(std::size_t size) {
  std::string bytes(size, '\0');
  std::uint64_t state = 0x9E3779B97F4A7C15u;
  for (char& byte : bytes) {
    state = state * 6364136223846793005u + 1442695040888963407u;
    byte = static_cast<char>(state >> 56);
  }
  return bytes;
}

}  // namespace zrtest
