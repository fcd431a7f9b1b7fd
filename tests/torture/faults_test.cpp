// Every call of the system fails once, at every place where it is made: the first time, the second
// time, and so on until a run passes in which it did not come to that. Each run starts servers,
// exchanges something of every kind and stops. Whatever failed: nothing crashes, hangs, leaks or
// sends a wrong byte; a start that brings nothing about says so; and the next request is served.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "http/protocol_kind.h"
#include "platform/detached.h"
#include "platform/filesystem.h"
#include "tests/support/captured.h"
#include "tests/torture/bed.h"
#include "tests/torture/faults.h"
#include "tests/torture/line.h"

namespace {

using namespace zrtest;
using std::chrono::milliseconds;
using std::chrono::seconds;

struct Case {
  const char* name;
  const char* call;
  int error;
};

const TemporaryFolder& Site() {
  static const TemporaryFolder folder;
  static const std::string program = [] {
    folder.Write("file", std::string(300'000, 'f'));
    return folder.WriteProgram("cgi-bin/run", R"(printf 'A: b\r\n\r\n'; exec cat)");
  }();
  return folder;
}

/// Whether a line came to standard error, which is captured: a file.
bool IsSaid() {
  const Exempt own;
  struct stat status {};
  return fstat(STDERR_FILENO, &status) == 0 && status.st_size > 0;
}

/// Those of HTTP, plain and with TLS.
class Servers : public SiteServers {
 public:
  Servers() : SiteServers(Site().Path()) {
    Open(zr::kProtocolHttp);
    Open(zr::kProtocolHttps);
  }
  /// 0 when the server reported that it has no port, or nothing in time.
  int PortInTime(std::uint32_t kind) {
    const Exempt own;
    WaitFor([&] { return Port(kind) || IsSaid(); }, seconds(2 * kSlowness));
    return Port(kind).value_or(0);
  }
  /// Whether something was said of every server, even that it cannot listen.
  bool Reported() { return IsSaid() || (Port(zr::kProtocolHttp) && Port(zr::kProtocolHttps)); }
  std::string Ask(int port) {
    const auto head = AskingBed::Request(port, "/cgi-bin/run", "body");
    client->SendMessage(head);
    const Exempt own;
    const std::string name = head->JobName();
    WaitFor([&] { return client->OutcomeOf(name).has_value(); }, seconds(5 * kSlowness));
    return client->OutcomeOf(name).value_or("");
  }
};

constexpr const char* kHangs = "[hangs]";

/// What the server sends to one client, to the end.
std::string Exchange(int port, Wire wire, const std::string& request) {
  const Exempt own;
  Line line(port, wire);
  if (!line.Connected() || !line.Handshake()) return {};
  line.Send(request);
  line.FinishSending();
  std::string answer = line.ReadToEnd(nullptr, seconds(3 * kSlowness));
  return line.Ended() ? answer : answer + kHangs;
}

/// Whether that is what was expected, a part of it, or another answer that is whole.
bool IsRight(const std::string& got, const std::string& expected) {
  if (expected.starts_with(got)) return true;
  const std::size_t head = got.find("\r\n\r\n");
  const std::size_t length = got.find("Content-Length: ");
  if (!got.starts_with("HTTP/1.1 ") || head == std::string::npos || length > head) return false;
  const std::size_t size = std::stoul(got.substr(length + 16));
  return got.size() == head + 4 + size && (size == 0 || !got.starts_with("HTTP/1.1 200"));
}

const std::string kFile = "GET /file HTTP/1.1\r\nConnection: close\r\n\r\n";
const std::string kForm =
    "POST /cgi-bin/run HTTP/1.1\r\nConnection: close\r\nContent-Length: 9\r\n\r\na=b&c=d&e";

/// The answers of one run, in a fixed order; the outcome of our own request is the last.
using Answers = std::vector<std::string>;

void Use(Servers& servers, Answers& answers) {
  const int plain = servers.PortInTime(zr::kProtocolHttp);
  const int secure = servers.PortInTime(zr::kProtocolHttps);
  if (plain == 0 || secure == 0) return;
  const std::tuple<int, Wire, const std::string&> exchanges[] = {
      {plain, Wire::kPlain, kFile}, {secure, Wire::kTls13, kFile}, {plain, Wire::kPlain, kForm}};
  for (const auto& [port, wire, request] : exchanges) {
    answers.push_back(Exchange(port, wire, request));
    if (answers.back().ends_with(kHangs)) return;
  }
  answers.push_back(servers.Ask(plain));
}

/// What a run with that fault did wrong; `struck` says whether the fault came about.
std::string RunOnce(const Case& c, std::size_t n, const Answers& expected, bool& struck) {
  Answers answers;
  std::string wrong;
  Arm(c.call, c.error, n);
  try {
    Servers servers;
    Use(servers, answers);
    struck = Disarm();
    const int plain = servers.PortInTime(zr::kProtocolHttp);
    const int secure = servers.PortInTime(zr::kProtocolHttps);
    Answers next;
    Use(servers, next);
    if (plain != 0 && secure != 0 && next != expected) wrong += "what comes next is not served; ";
    if ((plain == 0 || secure == 0) && !servers.Reported())
      wrong += "no port, and nothing is said; ";
  } catch (const std::exception&) {
    struck = Disarm();  // the start said that it failed
  }
  for (std::size_t i = 0; i < answers.size(); ++i) {
    if (i < 3 ? !IsRight(answers[i], expected[i]) : answers[i].empty()) {
      wrong += "answer " + std::to_string(i) + ": " + answers[i].substr(0, 100) + " ... (" +
               std::to_string(answers[i].size()) + " bytes); ";
    }
  }
  return wrong;
}

class Faults : public testing::TestWithParam<Case> {};

TEST_P(Faults, LeaveNothingBehind) {
  const Case& c = GetParam();
  Answers expected;
  testing::internal::CaptureStderr();
  for (int warm = 0; warm < 2; ++warm) {
    expected.clear();
    Servers servers;
    Use(servers, expected);
  }
  EXPECT_EQ(CapturedErrors(), "");
  ASSERT_EQ(expected.size(), 4u);
  ASSERT_GT(expected[1].size(), 300'000u);
  Counts before = Counts::OfProcess();
  before.values[Counts::kThreads] += 2;  // the registry's two, once they are needed
  bool struck = true;
  std::size_t times = 0;
  int failures = 0;
  for (std::size_t n = 1; struck && failures < 5;
       n += c.call == std::string_view("memory") && !Torture() ? 1 + n / 16 : 1) {
    testing::internal::CaptureStderr();
    const std::string wrong = RunOnce(c, n, expected, struck);
    const std::string said = CapturedErrors();
    times += struck ? 1 : 0;
    std::string left;
    WaitFor([&] { return (left = Counts::OfProcess().MoreThan(before)).empty(); },
            seconds(2 * kSlowness));
    if (wrong.empty() && left.empty()) continue;
    ++failures;
    ADD_FAILURE() << c.name << ", time " << n << ": " << wrong << left << "\n" << said;
  }
  EXPECT_GT(times, 0u) << "no such call is made";
}

// A file that is replaced has all of its old bytes or all of its new ones, and nothing beside it.
TEST(Storage, IsWholeOrUnchanged) {
  const TemporaryFolder folder;
  const std::string path = folder.Path("kept");
  const std::string texts[] = {std::string(5000, 'a'), std::string(7000, 'b')};
  for (const auto& [call, error] : {std::pair{"write", ENOSPC},
                                    {"write", EINTR},
                                    {"write", kOneByte},
                                    {"fsync", EIO},
                                    {"rename", EIO},
                                    {"open", EMFILE}}) {
    bool struck = true;
    for (std::size_t n = 1; struck; ++n) {
      SCOPED_TRACE(std::string(call) + " time " + std::to_string(n));
      ASSERT_EQ(zr::ReplaceFile(path, texts[0], 0600), 0);
      Arm(call, error, n);
      const bool replaced = zr::ReplaceFile(path, texts[1], 0600) == 0;
      struck = Disarm();
      EXPECT_EQ(ReadFile(path), texts[replaced ? 1 : 0]);
      EXPECT_EQ(Counts::NamesIn(folder.Path()), 1u);
      EXPECT_TRUE(struck || replaced);
    }
  }
}

TEST(DetachedPrograms, AreStartedOrRefused) {
  for (const auto& [call, error] :
       {std::pair{"spawn", EAGAIN}, {"pipe", EMFILE}, {"read", EINTR}}) {
    const Counts before = Counts::OfProcess();
    Arm(call, error, 1);
    EXPECT_EQ(zr::StartDetachedProgram("true", {}), call == std::string_view("read"));
    EXPECT_TRUE(Disarm());
    EXPECT_TRUE(WaitFor([&] { return Counts::OfProcess().MoreThan(before).empty(); }));
  }
}

const Case kCases[] = {
    {"socket", "socket", EMFILE},
    {"bind", "bind", EADDRINUSE},
    {"listen", "listen", EADDRINUSE},
    {"accept_exhausted", "accept", EMFILE},
    {"accept_aborted", "accept", ECONNABORTED},
    {"accept_interrupted", "accept", EINTR},
    {"connect", "connect", ENETUNREACH},
    {"option", "setsockopt", ENOPROTOOPT},
    {"send_reset", "send", ECONNRESET},
    {"send_full", "send", EAGAIN},
    {"send_one_byte", "send", kOneByte},
    {"sendfile_error", "sendfile", EIO},
    {"sendfile_one_byte", "sendfile", kOneByte},
    {"receive_reset", "recv", ECONNRESET},
    {"receive_empty", "recv", EAGAIN},
    {"receive_one_byte", "recv", kOneByte},
    {"read_error", "read", EIO},
    {"read_interrupted", "read", EINTR},
    {"read_one_byte", "read", kOneByte},
    {"write_error", "write", EIO},
    {"write_full", "write", EAGAIN},
    {"read_file", "pread", EIO},
    {"open", "open", EMFILE},
    {"open_beneath", "syscall", EMFILE},
    {"status", "fstat", EIO},
    {"pipe", "pipe", EMFILE},
    {"descriptor_control", "fcntl", EMFILE},
    {"event", "eventfd", EMFILE},
    {"poller", "epoll_create", EMFILE},
    {"watch", "epoll_ctl", ENOMEM},
    {"wait_interrupted", "epoll_wait", EINTR},
    {"wait_error", "epoll_wait", EBADF},
    {"poll_interrupted", "poll", EINTR},
    {"poll_error", "poll", ENOMEM},
    {"spawn", "spawn", EAGAIN},
    {"thread", "thread", EAGAIN},
    {"memory", "memory", ENOMEM},
};
INSTANTIATE_TEST_SUITE_P(Calls, Faults, testing::ValuesIn(kCases),
                         [](const auto& one) { return std::string(one.param.name); });

}  // namespace
