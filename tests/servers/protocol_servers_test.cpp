// The protocol servers from outside: raw bytes and real curl against servers on port 0.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <deque>
#include <thread>

#include "base/exception.h"
#include "jobs/job_registry.h"
#include "platform/file.h"
#include "platform/thread.h"
#include "servers/server.h"
#include "tests/support/captured.h"
#include "tests/support/raw_client.h"
#include "tests/support/run.h"
#include "tests/support/server_bed.h"

namespace {

using namespace std::chrono_literals;
using namespace zrtest;

constexpr char kGetA[] = "GET /a HTTP/1.1\r\n\r\n";

std::string Answer(const std::string& body) {
  return "HTTP/1.1 200 OK\r\nServer: velkoro/1.28.1(96)\r\nContent-Length: " +
         std::to_string(body.size()) + "\r\n\r\n" + body;
}

TEST(Http, ReadsARequestHoweverItIsCut) {
  ServerBed bed;
  const int port = bed.Open(zr::kProtocolHttp);
  const std::string request = "POST /p HTTP/1.1\r\nContent-Length: 4\r\n\r\nbody";
  RawClient other(port);  // half a request beside it, not to be mixed up
  other.Send("POST /other HTTP/1.1\r\ncontent-le");
  for (std::size_t cut = 0; cut <= request.size(); ++cut) {
    SCOPED_TRACE(cut);
    RawClient client(port);
    client.Send(request.substr(0, cut));
    if (cut % 8 == 0) client.ReadSome(1, 0s);  // lets the first part arrive alone
    client.Send(request.substr(cut));
    ASSERT_EQ(client.ReadUntil("body"), Answer("/p|body"));
  }
  other.Send("ngth: 1\r\n\r\nx");
  EXPECT_EQ(other.ReadUntil("|x"), Answer("/other|x"));
}

// Whatever an owner's callback throws, every answer goes out once and the turn ends with it; what a
// handler throws ends its connection and no other.
TEST(Http, FailuresOfCallbacksAndHandlersLeaveNoTurnOpen) {
  ServerBed bed;
  bed.callback = [inner = bed.callback](ZrServerCallback_t& record) -> bool {
    inner(record);
    throw record.kind;
  };
  std::vector<std::jthread> answering;  // the queue task's
  bed.onMessage = [&](ServerBed& self, const ServerBed::Message& m) -> int {
    if (m->path == "/thrown") throw 7;
    if (m->path == "/both") self.Answer(*m, "both");
    if (m->path == "/both") throw 8;
    answering.emplace_back([&self, m] { self.Answer(*m, "late"); });
    return 1;
  };
  const int port = bed.Open(zr::kProtocolHttp);
  RawClient client(port);
  for (int i = 0; i < 3; ++i) {
    client.Send(kGetA);
    EXPECT_EQ(client.ReadUntil("late"), Answer("late"));
  }
  const std::pair<const char*, std::string> ends[] = {{"/thrown", ""}, {"/both", Answer("both")}};
  for (const auto& [path, expected] : ends) {
    RawClient failing(port);
    failing.Send(std::string("GET ") + path + " HTTP/1.1\r\n\r\n");
    EXPECT_EQ(failing.ReadToEnd(), expected) << path;
  }
  client.FinishSending();
  EXPECT_TRUE(bed.WaitForConnections(0));
  bed.transceiver.StopServers();
}

// The next message of the connection is read on another thread while the handler goes on; nearly
// always, so that nobody waits for it for ever.
TEST(Http, AnAnswerEndsTheTurnWhateverItsHandlerStillDoes) {
  const zrtest::ManualClock clock;  // no pass takes long
  ServerBed bed(clock);
  std::counting_semaphore<> served(0);
  bed.onMessage = [&](ServerBed& self, const ServerBed::Message& m) -> int {
    self.Answer(*m, m->path);
    if (m->path == "/quick") served.release();
    if (m->path == "/slow") static_cast<void>(served.try_acquire_for(100ms));
    if (m->path == "/thrown") throw 7;
    return 1;
  };
  RawClient client(bed.Open(zr::kProtocolHttp));
  for (int i = 0; i < 10; ++i) {
    for (const char* path : {"/slow", "/quick", "/quick"}) {
      client.Send(std::string("GET ") + path + " HTTP/1.1\r\n\r\n");
      ASSERT_EQ(client.ReadUntil(path), Answer(path)) << i;
    }
  }
  client.Send("GET /thrown HTTP/1.1\r\n\r\n");
  EXPECT_EQ(client.ReadToEnd(), Answer("/thrown"));
}

// Some of them by the receive job, and when it has done enough for one connection, by the task.
TEST(Http, RequestsSentAtOnceAreAnsweredOnceAndInOrder) {
  ServerBed bed;
  bed.onMessage = [](ServerBed& self, const ServerBed::Message& m) {
    self.Answer(*m, m->query);
    return 1;
  };
  const int port = bed.Open(zr::kProtocolHttp);
  for (int round = 0; round < 30; ++round) {
    RawClient client(port);
    std::string requests;
    std::string expected;
    for (int i = 0; i < 40; ++i) {
      requests += "GET /quick?" + std::to_string(i) + " HTTP/1.1\r\n\r\n";
      expected += Answer(std::to_string(i));
    }
    client.Send(requests);
    client.FinishSending();
    ASSERT_EQ(client.ReadToEnd(), expected);
  }
}

TEST(Http, WithoutAThreadAServerIsRefused) {
  ServerBed bed;
  bed.scheduler.Stop();
  EXPECT_THROW(bed.Start(zr::kProtocolHttp, {}), ZrException);
}

TEST(Http, OneRequestOfAConnectionIsInProgressAtATime) {
  ServerBed bed;
  ServerBed::Message held;
  std::atomic<int> handled = 0;
  bed.onMessage = [&](ServerBed& self, const ServerBed::Message& m) {
    const bool holds = m->path == "/hold";  // the answer is still to come
    if (holds) held = m;
    ++handled;
    if (!holds) self.Answer(*m, "ok");
    return 1;
  };
  const int port = bed.Open(zr::kProtocolHttp);
  RawClient client(port);
  client.Send("GET /hold HTTP/1.1\r\n\r\n");
  ASSERT_TRUE(WaitFor([&] { return handled == 1; }));
  // Requests behind it, more than the server and the sockets together take.
  constexpr int kMore = 500;
  std::atomic<bool> sent = false;
  std::thread sender([&] {
    const std::string request = "GET /?" + std::string(60'000, 'q') + " HTTP/1.1\r\n\r\n";
    for (int i = 0; i < kMore; ++i) client.Send(request);
    client.FinishSending();
    sent = true;
  });
  const auto connection = bed.transceiver.FindConnection(held->route[0]);
  EXPECT_TRUE(WaitFor([&] { return connection->IsReadingPaused(); }));
  EXPECT_FALSE(sent);
  RawClient other(port);  // a connection of its own is not held up
  other.Send(kGetA);
  EXPECT_EQ(other.ReadUntil("ok"), Answer("ok"));
  EXPECT_EQ(handled, 2);
  bed.Answer(*held, "held");
  std::string expected = Answer("held");
  for (int i = 0; i < kMore; ++i) expected += Answer("ok");
  EXPECT_TRUE(client.ReadToEnd() == expected);
  sender.join();
  held.reset();
}

TEST(Http, EndsConnectionsAsTheRequestAsks) {
  struct EndCase {
    const char* name;
    const char* bytes;
    bool finish;  // the client ends its side behind them
    const char* answer;
  };
  const std::string answer = Answer("/a");
  const EndCase cases[] = {
      {"close",
       "GET /a HTTP/1.1\r\nConnection: keep-alive, close\r\n\r\nGET /never HTTP/1.1\r\n\r\n", false,
       answer.c_str()},
      {"half-close behind a request", kGetA, true, answer.c_str()},
      {"half-close in a head", "GET /a HTTP/1.1\r\nHo", true, ""},
      {"half-close in a body", "POST /a HTTP/1.1\r\nContent-Length: 9\r\n\r\nx", true, ""},
      {"nothing at all", "", true, ""},
      {"unknown method", "PUT /a HTTP/1.1\r\n\r\n", false, ""},
      {"TLS on the plain port", "\x16\x03\x01\x02", false, ""},
      {"an answer nobody asked for", "HTTP/1.1 200 OK\r\n\r\n", false, ""},
      {"a handler that throws", "GET /throw HTTP/1.1\r\n\r\n", false, ""},
      {"a handler that refuses", "GET /refuse HTTP/1.1\r\n\r\n", false, ""},
      {"more than declared", "POST /a HTTP/1.1\r\nContent-Length: 1\r\n\r\nxyz", false, ""},
      {"a transfer coding",
       "POST /a HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\nGET /never HTTP/1.1\r\n\r\n",
       false, ""},
      {"lengths that differ", "GET /a HTTP/1.1\r\nContent-Length: 0\r\nContent-Length: 5\r\n\r\n",
       false, ""},
  };
  ServerBed bed;
  bed.onMessage = [](ServerBed& self, const ServerBed::Message& message) -> int {
    if (message->path == "/throw") throw std::runtime_error("handler");
    if (message->path == "/refuse") return 0;
    self.Answer(*message, message->path);
    return 1;
  };
  const int port = bed.Open(zr::kProtocolHttp);
  for (const EndCase& c : cases) {
    SCOPED_TRACE(c.name);
    const std::size_t logged = bed.Records(ZrServerCallback_t::kMessageLogged).size();
    RawClient client(port);
    client.Send(c.bytes);
    if (c.finish) client.FinishSending();
    bool ended = false;
    EXPECT_EQ(client.ReadToEnd(&ended), c.answer);
    EXPECT_TRUE(ended) << "reset instead of an orderly end";
    const std::size_t more = *c.answer != '\0' ? 1 : 0;
    EXPECT_TRUE(WaitFor(
        [&] { return bed.Records(ZrServerCallback_t::kMessageLogged).size() == logged + more; }));
  }
  EXPECT_TRUE(bed.WaitForConnections(0));
}

// What comes behind a request whose end nobody can know is never another one.
TEST(Http, ReadsNothingBehindARequestWithoutALength) {
  ServerBed bed;
  ServerBed::Message held;
  std::atomic<int> handled = 0;
  bed.onMessage = [&](ServerBed&, const ServerBed::Message& message) {
    held = message;
    ++handled;
    return 1;
  };
  const int port = bed.Open(zr::kProtocolHttp);
  for (const char* length : {"", "Content-Length: +1\r\n"}) {
    SCOPED_TRACE(length);
    handled = 0;
    RawClient client(port);
    client.Send("POST /a HTTP/1.1\r\n" + std::string(length) + "\r\n");
    ASSERT_TRUE(WaitFor([&] { return handled == 1; }));
    const auto connection = bed.transceiver.FindConnection(held->route[0]);
    client.Send(kGetA);
    ASSERT_TRUE(WaitFor([&] { return connection->HasReceived(); }));
    bed.Answer(*std::exchange(held, nullptr), "first");
    EXPECT_EQ(client.ReadToEnd(), Answer("first"));
    EXPECT_EQ(handled, 1);
  }
}

// Large bodies are handed out like others and lie in no buffer of ours; unwanted ones lie nowhere.
TEST(Http, KeepsLargeBodiesOffTheHeap) {
  ServerBed bed;
  std::atomic<std::size_t> heap = 0;
  bed.onMessage = [&](ServerBed& self, const ServerBed::Message& m) {
    heap = m->body->HeapBytes();
    EXPECT_EQ(m->BodyState(), ZrReadResult::kComplete);
    self.Answer(*m, std::to_string(std::hash<std::string_view>()(m->body->Unread())));
    return 1;
  };
  const int port = bed.Open(zr::kProtocolHttp);
  std::string body(3 << 20, 'x');
  for (std::size_t i = 0; i < body.size(); i += 101) body[i] = static_cast<char>(i);
  struct Case {
    const char* path;
    std::size_t size;
    bool kept;
    bool onHeap;
  };
  const Case cases[] = {{"/a", 1 << 20, true, true},
                        {"/a", (1 << 20) + 1, true, false},
                        {"/a", 3 << 20, true, false},
                        {"/unwanted", 3 << 20, false, false}};
  RawClient client(port);  // one for all: each body ends where it should
  for (const Case& c : cases) {
    const std::string_view sent = std::string_view(body).substr(0, c.size);
    client.Send("POST " + std::string(c.path) +
                " HTTP/1.1\r\nContent-Length: " + std::to_string(c.size) + "\r\n\r\n");
    client.Send(sent);
    const std::string hash =
        std::to_string(std::hash<std::string_view>()(c.kept ? sent : std::string_view()));
    EXPECT_EQ(client.ReadUntil(hash), Answer(hash)) << c.size;
    EXPECT_EQ(heap > c.size / 2, c.onHeap) << c.size;
  }
  // What is still to come counts as it arrives.
  client.Send("POST /a HTTP/1.1\r\nContent-Length: 900000\r\n\r\n" + body.substr(0, 600'000));
  EXPECT_TRUE(WaitFor([&] { return bed.transceiver.Memory()->Used() >= 600'000; }));
  client.Reset();
  EXPECT_TRUE(WaitFor([&] { return bed.transceiver.Memory()->Used() == 0; }));
}

TEST(Http, ABodyMustKeepComing) {
  zrtest::ManualClock clock;
  ServerBed bed(clock);
  ServerBed::Message held;
  bed.onMessage = [&held](ServerBed& self, const ServerBed::Message& m) {
    held = m;
    self.Answer(*m, "ok");
    return 1;
  };
  RawClient client(bed.Open(zr::kProtocolHttp));
  client.Send(kGetA);
  ASSERT_EQ(client.ReadUntil("ok"), Answer("ok"));
  const auto connection = bed.transceiver.FindConnection(held->route[0]);
  const auto due = [&] { return connection->NextExpiryNs() - clock.MonotonicNs(); };
  client.Send("POST /a HTTP/1.1\r\nContent-Length: 999999\r\n\r\nx");
  ASSERT_TRUE(WaitFor([&] { return due() == 60'000'000'000; }));
  client.Send(std::string(100 * 1024, 'x'));
  ASSERT_TRUE(WaitFor([&] { return due() == 100'000'000'000; }));
  clock.Advance(99s);
  client.Send("x");
  ASSERT_TRUE(WaitFor([&] { return due() == 1'000'000'000; }));
  EXPECT_FALSE(connection->HasExpired());
  clock.Advance(1s);
  EXPECT_TRUE(connection->HasExpired());
}

// With standard semantics a peer is told why its connection ends; an idle one is not.
TEST(Http, AMessageThatComesTooLateIsAnsweredWhereAnswersSaySo) {
  zrtest::ManualClock clock;
  ServerBed bed(clock);
  std::string name;
  bed.onMessage = [&name](ServerBed& self, const ServerBed::Message& m) {
    name = m->route[0];
    self.Answer(*m, "ok", m->refusal == 0 ? 200 : m->refusal);
    return 1;
  };
  const int port = bed.Open(zr::kProtocolHttp, {{"semantics", "standard"}});
  for (const char* begun :
       {"GET / HT", "POST / HTTP/1.1\r\nHost: h\r\nContent-Length: 9\r\n\r\nx", ""}) {
    SCOPED_TRACE(begun);
    RawClient client(port);
    client.Send("GET /first HTTP/1.1\r\nHost: h\r\n\r\n");
    ASSERT_NE(client.ReadUntil("ok"), "");
    const auto connection = bed.transceiver.FindConnection(name);
    client.Send(begun);
    const bool idle = *begun == '\0';
    const std::int64_t minute = clock.MonotonicNs() + 60'000'000'000;
    ASSERT_TRUE(WaitFor([&] { return idle || connection->NextExpiryNs() <= minute; }));
    std::string got;
    // The connection may be entered with the housekeeper only now, and is then due a moment later.
    ASSERT_TRUE(WaitFor([&] {
      clock.Advance(idle ? 20s : 1s);
      bed.transceiver.WakeHousekeeper();
      got += client.ReadSome(1024, 0s);
      return bed.transceiver.ConnectionCount() == 0 || got.find("\r\n\r\n") != got.npos;
    }));
    got += client.ReadToEnd();
    EXPECT_EQ(got.starts_with("HTTP/1.1 408 Request Timeout\r\n"), !idle) << got;
    EXPECT_EQ(got.find("\r\nConnection: close\r\n") != got.npos, !idle);
    const auto logged = bed.Records(ZrServerCallback_t::kMessageLogged);
    EXPECT_EQ(logged.back().info.Get("logging").find("--> 408 ") != got.npos, !idle);
    client.FinishSending();
    clock.Advance(5s);
    bed.transceiver.WakeHousekeeper();
    ASSERT_TRUE(bed.WaitForConnections(0));
  }
}

// Plain and with TLS.
class Transport : public testing::TestWithParam<std::uint32_t> {
 protected:
  int Open(ServerBed& bed) {
    const auto& files = TestCertificate();
    return bed.Open(GetParam(),
                    {{"cacertificate", files.certificate}, {"privatekey", files.privateKey}});
  }
  std::string Url(int port) const {
    return std::string(zr::ProtocolSchemeName(GetParam())) + "://127.0.0.1:" + std::to_string(port);
  }
};
INSTANTIATE_TEST_SUITE_P(HttpAndHttps, Transport,
                         testing::Values(zr::kProtocolHttp, zr::kProtocolHttps));

TEST_P(Transport, SendsFilesWholeBeforeItCloses) {
  TemporaryFolder folder;
  std::string content(64 * 1024 * 1024, '\0');
  for (std::size_t i = 0; i < content.size(); i += 97) content[i] = static_cast<char>(i);
  const std::string path = folder.Write("big", content);
  const std::string small = folder.Write("small", "small file");
  const std::map<std::string, std::pair<std::string, std::uint64_t>> files = {
      {"/big", {path, content.size()}},
      {"/cut", {path, content.size() + 1}},
      {"/small", {small, 10}},
      {"/gone", {folder.Path("gone"), 5}}};
  ServerBed bed;
  bed.onMessage = [&](ServerBed& self, const ServerBed::Message& m) {
    const auto answer = m->MakeResponse();
    answer->SetStatus(200);
    answer->SetFileBody(files.at(m->path).first, files.at(m->path).second);
    self.Send(*m, answer);
    return 1;
  };
  const int port = Open(bed);
  const std::string url = Url(port);
  const auto got = RunProgram({"curl", "-ksH", "Connection: close", url + "/big"});
  EXPECT_EQ(got.status, 0);
  EXPECT_TRUE(got.out == content);
  EXPECT_EQ(RunProgram({"curl", "-ks", url + "/small", url + "/small"}).out,
            "small filesmall file");
  // A length that cannot be kept ends the connection behind the bytes there are.
  EXPECT_EQ(RunProgram({"curl", "-ks", url + "/gone"}).status, 18);
  const auto cut = RunProgram({"curl", "-ks", url + "/cut"});
  EXPECT_EQ(cut.status, 18);
  EXPECT_EQ(cut.out.size(), content.size());
}

TEST_P(Transport, TheHandshakeAndTheHeadMustBeCompleteInAMinute) {
  zrtest::ManualClock clock;
  ServerBed bed(clock);
  std::string name;
  bed.onMessage = [&name](ServerBed& self, const ServerBed::Message& m) {
    name = m->route[0];
    self.Answer(*m, "ok");
    return 1;
  };
  RawClient client(Open(bed));
  if (GetParam() == zr::kProtocolHttp) {
    client.Send(kGetA);
    ASSERT_EQ(client.ReadUntil("ok"), Answer("ok"));
    ASSERT_TRUE(WaitFor([&] { return !bed.Records(ZrServerCallback_t::kMessageLogged).empty(); }));
    client.Send("GET / HT");
    const auto connection = bed.transceiver.FindConnection(name);
    const std::int64_t minute = clock.MonotonicNs() + 60'000'000'000;
    ASSERT_TRUE(WaitFor([&] { return connection->NextExpiryNs() <= minute; }));
  } else {
    client.Send(std::string_view("\x16\x03\x01", 3));
    ASSERT_TRUE(bed.WaitForConnections(1));  // its time runs from here
  }
  clock.Advance(61s);
  // The connection may be entered with the housekeeper only now, and is then due a moment later.
  const std::int64_t end = clock.MonotonicNs() + 40'000'000'000;
  EXPECT_TRUE(WaitFor([&] {
    if (clock.MonotonicNs() < end) clock.Advance(300ms);
    bed.transceiver.WakeHousekeeper();
    return bed.transceiver.ConnectionCount() == 0;
  }));
  EXPECT_EQ(client.ReadToEnd(), "");
}

TEST(Http, WhatAPeerDoesNotReadHoldsItUpAlone) {
  const std::string body(200'000, 'b');
  std::atomic<int> handled = 0;
  ServerBed bed;
  bed.onMessage = [&](ServerBed& self, const ServerBed::Message& m) {
    ++handled;
    self.Answer(*m, body);
    return 1;
  };
  const int port = bed.Open(zr::kProtocolHttp);
  RawClient greedy(port);
  constexpr int kRequests = 300;  // 60 MB of answers, far more than the sockets hold
  for (int i = 0; i < kRequests; ++i) greedy.Send(kGetA);
  RawClient modest(port);
  modest.Send("GET /m HTTP/1.1\r\nConnection: close\r\n\r\n");
  EXPECT_EQ(modest.ReadToEnd(), Answer(body));
  EXPECT_LT(handled, kRequests / 2);
  std::size_t received = 0;
  while (received < kRequests * Answer(body).size()) {
    const std::size_t count = greedy.ReadSome().size();
    ASSERT_GT(count, 0u) << "the answers stopped after " << received << " bytes";
    received += count;
  }
  EXPECT_TRUE(WaitFor([&] { return handled == kRequests + 1; }));
}

TEST(DirectSocket, HandsOutBytesAsTheyComeAndSendsBodies) {
  ServerBed bed;
  bed.onMessage = [](ServerBed& self, const ServerBed::Message& m) {
    self.Answer(*m, "<" + std::string(m->body->Unread()) + ">");
    return 1;
  };
  RawClient client(bed.Open(zr::kProtocolSocket));
  client.Send("GET no head here");
  EXPECT_EQ(client.ReadUntil(">"), "<GET no head here>");
  client.Send("more");
  EXPECT_EQ(client.ReadUntil(">"), "<more>");
  ASSERT_TRUE(WaitFor([&] { return bed.Records(ZrServerCallback_t::kBytesSent).size() == 2; }));
  const auto record = bed.Records(ZrServerCallback_t::kBytesSent).back();
  EXPECT_EQ(record.info.Get("bytes"), "6");
  EXPECT_TRUE(bed.Records(ZrServerCallback_t::kMessageLogged).empty());
}

TEST(Servers, NothingGrowsWithTheRequestsServed) {
  ServerBed bed;
  const int port = bed.Open(zr::kProtocolHttp);
  const auto before = ZrJobRegistry::Instance().Count();
  for (int i = 0; i < 30; ++i) {
    RawClient client(port);
    for (int j = 0; j < 20; ++j) {
      client.Send(kGetA);
      ASSERT_NE(client.ReadUntil("/a|"), "");
    }
    if (i % 3 == 0) client.Send("GET /half");
    if (i % 3 == 1) client.Reset();
  }
  EXPECT_TRUE(WaitFor([&] {
    const auto count = ZrJobRegistry::Instance().Count();
    return count.tasks <= before.tasks && count.jobs <= before.jobs;
  }));
}

// The soft limit of descriptors, put back at the end.
class DescriptorLimit {
 public:
  DescriptorLimit() { getrlimit(RLIMIT_NOFILE, &before_); }
  ~DescriptorLimit() { Set(before_.rlim_cur); }
  void Set(rlim_t soft) {
    const rlimit now{soft, before_.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &now), 0);
  }
  rlim_t Before() const { return before_.rlim_cur; }

 private:
  rlimit before_{};
};

// Whoever came and went while a handler blocks leaves nothing in the queue behind it.
TEST(Servers, ABlockedHandlerKeepsNothingOfThoseWhoWent) {
  ManualClock clock;
  ServerBed bed(clock);
  std::atomic<bool> blocked = false;
  std::atomic<bool> released = false;
  bed.onMessage = [&](ServerBed& self, const ServerBed::Message& m) {
    if (m->path == "/block") {
      blocked = true;
      EXPECT_TRUE(WaitFor([&] { return released.load(); }, 60s));
    }
    self.Answer(*m, "ok");
    return 1;
  };
  const int port = bed.Open(zr::kProtocolHttp);
  const auto server = std::dynamic_pointer_cast<ZrTransceiverServer>(bed.transceiver.FindServer(
      bed.Records(ZrServerCallback_t::kServerCreated).back().info.Get("ID")));
  RawClient slow(port);
  slow.Send("GET /block HTTP/1.1\r\n\r\n");
  ASSERT_TRUE(WaitFor([&] { return blocked.load(); }));
  {
    std::deque<RawClient> silent;
    for (int i = 0; i < 300; ++i) silent.emplace_back(port).Send("GET / HTTP/1.1\r\n");
    ASSERT_TRUE(bed.WaitForConnections(1 + silent.size()));
    const auto expire = [&] {
      clock.Advance(200s);
      bed.transceiver.WakeHousekeeper();
      return WaitFor([&] { return bed.transceiver.ConnectionCount() == 1; }, 3s);
    };
    // Bytes that are read only now begin their time anew; the blocked one has 900 s.
    ASSERT_TRUE(expire() || expire() || expire() || expire());
  }
  RawClient patient(port);
  patient.Send(kGetA);
  EXPECT_TRUE(WaitFor([&] { return server->waitingItems() < 20; })) << server->waitingItems();
  released = true;
  EXPECT_EQ(slow.ReadUntil("ok"), Answer("ok"));
  EXPECT_EQ(patient.ReadUntil("ok"), Answer("ok"));
  EXPECT_TRUE(bed.WaitForConnections(2));
}

TEST(Servers, AMissingThreadFailsTheStartAndNotTheNextOne) {
  ServerBed bed;
  testing::internal::CaptureStderr();
  zr::FailThreadStart(1);
  EXPECT_THROW(bed.Open(zr::kProtocolHttp), std::exception);
  zrtest::CapturedErrors();
  RawClient client(bed.Open(zr::kProtocolHttp));
  client.Send(kGetA);
  EXPECT_EQ(client.ReadUntil("|"), Answer("/a|"));
}

TEST(Listener, TakesAsManyPeersAsTheDescriptorsAllow) {
  DescriptorLimit limit;
  limit.Set(80);
  ServerBed bed;
  const int port = bed.Open(zr::kProtocolHttp);
  limit.Set(limit.Before());
  constexpr std::size_t kCap = 80 - 10 - 20;
  std::vector<RawClient> clients;
  for (std::size_t i = 0; i < kCap; ++i) clients.emplace_back(port);
  ASSERT_TRUE(bed.WaitForConnections(kCap));
  RawClient over(port);
  EXPECT_EQ(over.ReadToEnd(), "") << "one too many is closed at once";
  clients.front().Send("GET / HTTP/1.1\r\n\r\n");
  EXPECT_NE(clients.front().ReadUntil("/|"), "");
  while (clients.size() > 1) clients.pop_back();
  ASSERT_TRUE(bed.WaitForConnections(1));
  RawClient again(port);
  EXPECT_TRUE(bed.WaitForConnections(2));
}

TEST(Listener, WaitsWhenDescriptorsRunOut) {
  ServerBed bed;
  const int port = bed.Open(zr::kProtocolHttp);
  RawClient first(port);  // starts the I/O jobs
  ASSERT_TRUE(bed.WaitForConnections(1));
  DescriptorLimit limit;
  const int next = open("/dev/null", O_RDONLY | O_CLOEXEC);
  close(next);
  limit.Set(static_cast<rlim_t>(next) + 1);  // room for the client, none for the server's side
  RawClient client(port);
  ASSERT_TRUE(client.Connected());
  client.Send("GET / HTTP/1.1\r\n\r\n");
  EXPECT_EQ(client.ReadSome(1, 1s), "");
  limit.Set(limit.Before());
  EXPECT_NE(client.ReadUntil("/|"), "");
}

}  // namespace
