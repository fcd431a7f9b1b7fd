// Lines of a server whose readers do not read, and the signals that end it all the same.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <regex>

#include "tests/e2e/served.h"
#include "tests/support/raw_client.h"
#include "tests/support/wait.h"

namespace {

using namespace zrtest;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr int kRequests = 10'000;

/// A FIFO or a terminal that is read when the test likes.
class Reader {
 public:
  explicit Reader(bool terminal) {
    if (terminal) {
      own_ = ::posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
      EXPECT_TRUE(own_ >= 0 && ::grantpt(own_) == 0 && ::unlockpt(own_) == 0);
      path_ = ::ptsname(own_);
      other_ = ::open(path_.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    } else {
      path_ = folder_.Path("fifo");
      EXPECT_EQ(::mkfifo(path_.c_str(), 0600), 0);
      own_ = ::open(path_.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    }
  }
  ~Reader() {
    ::close(own_);
    ::close(other_);
  }
  const std::string& Path() const { return path_; }
  const std::string& Text() const { return text_; }
  /// Reads what there is until the text holds a match.
  bool ReadUntil(const std::regex& wanted) {
    return WaitFor([&] {
      Drain();
      return std::regex_search(text_, found, wanted);
    });
  }
  void Drain() {
    char block[65536];
    for (ssize_t count; (count = ::read(own_, block, sizeof block)) > 0;) {
      text_.append(block, static_cast<std::size_t>(count));
    }
  }
  std::smatch found;

 private:
  TemporaryFolder folder_;
  std::string path_;
  std::string text_;
  int own_ = -1;
  int other_ = -1;  // keeps the terminal when no program has it open
};

/// A server whose standard streams lead there.
class Unread {
 public:
  Unread(Reader& out, const std::string& redirections, const std::vector<std::string>& options = {})
      : program_(Words(folder_, redirections, options)) {
    EXPECT_TRUE(out.ReadUntil(std::regex("on http://127\\.0\\.0\\.1:([0-9]+)/")));
    port_ = std::stoi(out.found[1]);
  }
  /// Asks so often over one connection, some requests at a time; how many were answered.
  int Ask(int requests) {
    constexpr int kAtOnce = 20;
    RawClient client(port_);
    std::string some;
    for (int i = 0; i < kAtOnce; ++i) {
      some += "GET /a HTTP/1.1\r\nUser-Agent: " + std::string(500, 'x') + "\r\n\r\n";
    }
    int answered = 0;
    for (; answered < requests && client.Send(some); answered += kAtOnce) {
      std::size_t left = kAtOnce * Answer("page").size();
      while (left > 0) {
        const std::string piece = client.ReadSome(left);
        if (piece.empty()) return answered;
        left -= piece.size();
      }
    }
    return answered;
  }
  int Port() const { return port_; }
  BackgroundProgram& Program() { return program_; }
  Clock::duration TimeToEnd(int signal) {
    const auto begin = Clock::now();
    program_.Signal(signal);
    EXPECT_TRUE(program_.WaitForEnd(20s));
    return Clock::now() - begin;
  }

 private:
  static std::vector<std::string> Words(const TemporaryFolder& folder,
                                        const std::string& redirections,
                                        const std::vector<std::string>& options) {
    folder.Write("a", "page");
    std::vector<std::string> words = {"sh",
                                      "-c",
                                      "exec \"$@\" " + redirections,
                                      "sh",
                                      VELKORO_PROGRAM,
                                      "serve",
                                      folder.Path(),
                                      "--minimal",
                                      "--listen",
                                      "http://127.0.0.1:0"};
    words.insert(words.end(), options.begin(), options.end());
    return words;
  }

  TemporaryFolder folder_;
  BackgroundProgram program_;
  int port_ = 0;
};

/// The access-log lines in the text and those that a notice says were lost.
int CountLines(const std::string& text) {
  int count = 0;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    if (line.find(" lost here") != std::string::npos) count += std::stoi(line.substr(9));
    if (line.find("\"GET /a\" --> 200") != std::string::npos) ++count;
  }
  return count;
}

TEST(ServeLines, AStreamThatIsNotReadStopsNobody) {
  for (const char* kind : {"standard output", "terminal", "log"}) {
    SCOPED_TRACE(kind);
    const bool log = kind == std::string("log");
    Reader out(kind == std::string("terminal"));
    Reader fifo(false);
    Unread server(
        out, ">" + out.Path(),
        log ? std::vector<std::string>{"--log", fifo.Path()} : std::vector<std::string>{});
    EXPECT_EQ(server.Ask(kRequests), kRequests);
    Reader& reader = log ? fifo : out;
    EXPECT_TRUE(WaitFor([&] {
      reader.Drain();
      return CountLines(reader.Text()) == kRequests;
    })) << CountLines(reader.Text());
    EXPECT_NE(reader.Text().find("lost here"), std::string::npos);
    EXPECT_EQ(server.Ask(1000), 1000);
    EXPECT_LT(server.TimeToEnd(SIGTERM), 3s);
    EXPECT_EQ(server.Program().Status(), 0);
  }
}

TEST(ServeLines, ASecondSignalEndsTheProcessWhateverHangs) {
  Reader out(false);
  Unread server(out, ">" + out.Path(), {"--grace", "600"});
  EXPECT_EQ(server.Ask(kRequests), kRequests);
  RawClient slow(server.Port(), 4096);
  slow.Send("GET /a HTTP/1.1\r\n");
  server.Program().Signal(SIGTERM);
  EXPECT_TRUE(WaitFor([&] { return !RawClient(server.Port()).Connected(); }));
  EXPECT_LT(server.TimeToEnd(SIGINT), 3s);
  EXPECT_EQ(server.Program().Status(), 0);
}

TEST(ServeLines, HangUpWithoutALogEndsTheProgram) {
  Reader out(false);
  Unread server(out, ">" + out.Path());
  server.TimeToEnd(SIGHUP);
  EXPECT_EQ(server.Program().Status(), 128 + SIGHUP);
}

}  // namespace
