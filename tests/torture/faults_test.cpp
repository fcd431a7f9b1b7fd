// Every call of the system fails once, at every place where it is made: the first time, the second
// time, and so on until a run passes in which it did not come to that. Each run starts servers,
// exchanges something of every kind and stops. Whatever failed: nothing crashes, hangs, leaks or
// sends a wrong byte; a start that brings nothing about says so; and the next request is served.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <filesystem>

#include "base/line_writer.h"
#include "handlers/cgi.h"
#include "handlers/static_files.h"
#include "http/protocol_kind.h"
#include "http/server_head.h"
#include "platform/detached.h"
#include "platform/filesystem.h"
#include "tests/support/asking_client.h"
#include "tests/torture/bed.h"
#include "tests/torture/faults.h"
#include "tests/torture/line.h"

namespace {

using namespace zrtest;
using std::chrono::milliseconds;
using std::chrono::seconds;

struct Case {
  const char* name;
  Call call;
  int error;
};

// For the reader of a crash.
const Case* current = nullptr;
std::atomic<std::size_t> currentTurn{0};
void TellCurrent(int number) {
  std::string text = std::string("crashed: ") + (current != nullptr ? current->name : "") +
                     ", time " + std::to_string(currentTurn) + "\n";
  [[maybe_unused]] const ssize_t told = ::write(STDERR_FILENO, text.data(), text.size());
  signal(number, SIG_DFL);
  raise(number);
}

const TemporaryFolder& Site() {
  static const TemporaryFolder folder;
  static const std::string program = [] {
    folder.Write("file", std::string(300'000, 'f'));
    return folder.WriteProgram("cgi-bin/run", R"(printf 'A: b\r\n\r\n'; exec cat)");
  }();
  return folder;
}

/// What the servers complained of goes there.
const std::string& ErrorFile() {
  static const TemporaryFolder folder;
  static const std::string path = [] {
    std::string file = folder.Path("errors");
    ZrLineSink sink;
    EXPECT_EQ(ZrLineSink::OpenFile(file, sink), 0);
    ZrLineWriter::Instance().Errors().Replace(std::move(sink));
    return file;
  }();
  return path;
}
std::string Errors() { return ReadFile(ErrorFile()); }
void ForgetErrors() {
  zr::FlushLines(seconds(kSlowness));
  std::filesystem::resize_file(ErrorFile(), 0);
}

/// Servers of an application, started, used and stopped.
class Servers {
 public:
  Servers()
      : scripts_(std::make_shared<ZrCgi>(scheduler_)),
        transceiver_(scheduler_, zr::ProtocolServers(zr::OutgoingPools())) {
    ZrOptionMap options;
    options.Set("_baseDirectoryHTTP", Site().Path());
    client_ =
        zr::MakeJob<AskingClient>([this](ZrServerCallback_t& record) { return Take(record); },
                                  options, nullptr, std::make_shared<ZrStaticFiles>(scripts_));
    transceiver_.AddClient(client_);
  }
  ~Servers() {
    transceiver_.StopServers();
    scripts_->Stop();
    if (client_) transceiver_.RemoveClient(client_);
    scheduler_.Stop();
  }
  void Open(std::uint32_t kind) {
    const auto head = zr::MakeJob<ZrXServerHeader>(true, kind);
    head->SetOption("tcp_port", "0");
    head->SetOption("cacertificate", TestCertificate().certificate);
    head->SetOption("privatekey", TestCertificate().privateKey);
    client_->OpenServer(head);
  }
  /// 0 when the server reported that it has no port, or nothing in time.
  int Port(std::uint32_t kind) {
    const Exempt own;
    const std::string scheme(zr::ProtocolSchemeName(kind));
    WaitFor([&] { return Said(scheme); }, seconds(2 * kSlowness));
    ZrLock hold(lock_);
    const auto found = ports_.find(scheme);
    return found == ports_.end() ? 0 : found->second;
  }
  /// Whether something was said of every server, even that it cannot listen.
  bool Reported() {
    const Exempt own;
    return WaitFor([&] { return !Errors().empty() || (Said("http") && Said("https")); },
                   seconds(2 * kSlowness));
  }
  std::string Ask(int port) {
    const auto head = AskingBed::Request(port, "/cgi-bin/run", "body");
    client_->SendMessage(head);
    const Exempt own;
    std::string outcome;
    WaitFor(
        [&] {
          for (const auto& [of, what] : client_->Outcomes()) {
            if (of == head->JobName()) outcome = what.Text();
          }
          return !outcome.empty();
        },
        seconds(5 * kSlowness));
    return outcome;
  }

 private:
  bool Said(const std::string& scheme) {
    ZrLock hold(lock_);
    return ports_.contains(scheme);
  }
  bool Take(ZrServerCallback_t& record) {
    const Exempt own;
    const bool listening = record.kind == ZrServerCallback_t::kListening;
    if (!listening && record.kind != ZrServerCallback_t::kBindFailed) return true;
    ZrLock hold(lock_);
    ports_[record.info.Get("protocolstring")] = listening ? std::stoi(record.info.Get("port")) : 0;
    return true;
  }

  ZrMutex lock_;
  std::map<std::string, int> ports_ ZR_GUARDED_BY(lock_);
  ZrRinvalScheduler2 scheduler_;
  const std::shared_ptr<ZrCgi> scripts_;
  ZrTransceiver transceiver_;
  std::shared_ptr<AskingClient> client_;
};

constexpr const char* kHangs = "[hangs]";

/// What the server sends to one client, to the end.
std::string Exchange(int port, Wire wire, const std::string& request) {
  const Exempt own;
  Line line(port, wire);
  if (!line.IsOpen() || !line.Handshake()) return {};
  line.Send(request);
  line.Finish();
  std::string answer = line.ReadToEnd(seconds(3 * kSlowness));
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
/// More than is kept in memory.
const std::string kUpload =
    "POST /cgi-bin/run HTTP/1.1\r\nConnection: close\r\nContent-Length: 1100000\r\n\r\n" +
    std::string(1'100'000, 'u');

/// The answers of one run, in a fixed order; the outcome of our own request is the last.
using Answers = std::vector<std::string>;

void Use(Servers& servers, Answers& answers) {
  const int plain = servers.Port(zr::kProtocolHttp);
  const int secure = servers.Port(zr::kProtocolHttps);
  if (plain == 0 || secure == 0) return;
  const std::tuple<int, Wire, const std::string&> exchanges[] = {{plain, Wire::kPlain, kFile},
                                                                 {secure, Wire::kTls13, kFile},
                                                                 {plain, Wire::kPlain, kForm},
                                                                 {plain, Wire::kPlain, kUpload}};
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
  ForgetErrors();
  Arm(c.call, c.error, n);
  try {
    Servers servers;
    servers.Open(zr::kProtocolHttp);
    servers.Open(zr::kProtocolHttps);
    Use(servers, answers);
    struck = Disarm();
    const int plain = servers.Port(zr::kProtocolHttp);
    const int secure = servers.Port(zr::kProtocolHttps);
    Answers next;
    Use(servers, next);
    if (plain != 0 && secure != 0 && next != expected) wrong += "what comes next is not served; ";
    if ((plain == 0 || secure == 0) && !servers.Reported())
      wrong += "no port, and nothing is said; ";
  } catch (const std::exception&) {
    struck = Disarm();  // the start said that it failed
  }
  for (std::size_t i = 0; i < answers.size(); ++i) {
    if (i < 4 ? !IsRight(answers[i], expected[i]) : answers[i].empty()) {
      wrong += "answer " + std::to_string(i) + ": " + answers[i].substr(0, 100) + " ... (" +
               std::to_string(answers[i].size()) + " bytes); ";
    }
  }
  return wrong;
}

class Faults : public testing::TestWithParam<Case> {};

TEST_P(Faults, LeaveNothingBehind) {
  const Case& c = GetParam();
  current = &c;
  for (const int number : {SIGABRT, SIGSEGV}) signal(number, TellCurrent);
  ForgetErrors();
  Answers expected;
  for (int warm = 0; warm < 2; ++warm) {
    expected.clear();
    Servers servers;
    servers.Open(zr::kProtocolHttp);
    servers.Open(zr::kProtocolHttps);
    Use(servers, expected);
  }
  ASSERT_EQ(expected.size(), 5u);
  ASSERT_GT(expected[1].size(), 300'000u);
  Counts before = Counts::OfProcess();
  before.values[Counts::kThreads] += 2;  // the registry's two, once they are needed
  bool struck = true;
  int failures = 0;
  for (std::size_t n = 1; struck && failures < 5; n += Torture() ? 1 : 1 + n / 16) {
    currentTurn = n;
    const std::string wrong = RunOnce(c, n, expected, struck);
    std::string left;
    WaitFor([&] { return (left = Counts::OfProcess().MoreThan(before)).empty(); },
            seconds(2 * kSlowness));
    if (wrong.empty() && left.empty()) continue;
    ++failures;
    ADD_FAILURE() << c.name << ", time " << n << ": " << wrong << left << '\n' << Errors();
  }
  EXPECT_GT(currentTurn, 1u) << "no such call is made";
}

// A file that is replaced has all of its old bytes or all of its new ones, and nothing beside it.
TEST(Faults, LeaveAFileWholeOrUnchanged) {
  const TemporaryFolder folder;
  const std::string path = folder.Path("kept");
  const std::string texts[] = {std::string(5000, 'a'), std::string(7000, 'b')};
  for (const auto& [call, error] : {std::pair{Call::kWrite, ENOSPC},
                                    {Call::kWrite, EINTR},
                                    {Call::kWrite, kOneByte},
                                    {Call::kSync, EIO},
                                    {Call::kRename, EIO},
                                    {Call::kOpen, EMFILE}}) {
    bool struck = true;
    for (std::size_t n = 1; struck; ++n) {
      SCOPED_TRACE(std::to_string(static_cast<int>(call)) + " time " + std::to_string(n));
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

TEST(Faults, StartDetachedProgramsOrRefuseThem) {
  for (const auto& [call, error] :
       {std::pair{Call::kSpawn, EAGAIN}, {Call::kPipe, EMFILE}, {Call::kRead, EINTR}}) {
    const Counts before = Counts::OfProcess();
    Arm(call, error, 1);
    EXPECT_EQ(zr::StartDetachedProgram("true", {}), call == Call::kRead);
    EXPECT_TRUE(Disarm());
    EXPECT_TRUE(WaitFor([&] { return Counts::OfProcess().MoreThan(before).empty(); }));
  }
}

const Case kCases[] = {
    {"socket", Call::kSocket, EMFILE},
    {"bind", Call::kBind, EADDRINUSE},
    {"listen", Call::kListen, EADDRINUSE},
    {"accept_exhausted", Call::kAccept, EMFILE},
    {"accept_aborted", Call::kAccept, ECONNABORTED},
    {"accept_interrupted", Call::kAccept, EINTR},
    {"connect", Call::kConnect, ENETUNREACH},
    {"option", Call::kSetOption, ENOPROTOOPT},
    {"connected", Call::kGetOption, ECONNREFUSED},
    {"own_name", Call::kOwnName, ENOBUFS},
    {"peer_text", Call::kPeerText, EIO},
    {"send_reset", Call::kSend, ECONNRESET},
    {"send_full", Call::kSend, EAGAIN},
    {"send_one_byte", Call::kSend, kOneByte},
    {"sendfile_error", Call::kSendFile, EIO},
    {"sendfile_one_byte", Call::kSendFile, kOneByte},
    {"receive_reset", Call::kReceive, ECONNRESET},
    {"receive_empty", Call::kReceive, EAGAIN},
    {"receive_one_byte", Call::kReceive, kOneByte},
    {"read_error", Call::kRead, EIO},
    {"read_interrupted", Call::kRead, EINTR},
    {"read_one_byte", Call::kRead, kOneByte},
    {"write_error", Call::kWrite, EIO},
    {"write_full", Call::kWrite, EAGAIN},
    {"read_file", Call::kReadAt, EIO},
    {"open", Call::kOpen, EMFILE},
    {"open_beneath", Call::kSystem, EMFILE},
    {"status", Call::kStatus, EIO},
    {"look", Call::kLook, EIO},
    {"body_full_disk", Call::kWriteAt, ENOSPC},
    {"body_one_byte", Call::kWriteAt, kOneByte},
    {"body_resize", Call::kResize, EIO},
    {"body_map", Call::kMap, ENOMEM},
    {"pipe", Call::kPipe, EMFILE},
    {"descriptor_control", Call::kControl, EMFILE},
    {"event", Call::kEvent, EMFILE},
    {"poller", Call::kPollerMake, EMFILE},
    {"watch", Call::kPollerChange, ENOMEM},
    {"wait_interrupted", Call::kPollerWait, EINTR},
    {"wait_error", Call::kPollerWait, EBADF},
    {"poll_interrupted", Call::kPoll, EINTR},
    {"poll_error", Call::kPoll, ENOMEM},
    {"spawn", Call::kSpawn, EAGAIN},
    {"wait_child", Call::kWaitChild, EINTR},
    {"thread", Call::kThread, EAGAIN},
    {"memory", Call::kMemory, ENOMEM},
};
INSTANTIATE_TEST_SUITE_P(Calls, Faults, testing::ValuesIn(kCases),
                         [](const auto& one) { return std::string(one.param.name); });

}  // namespace
