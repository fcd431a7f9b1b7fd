// The protocol servers from outside: raw bytes and real curl against servers on port 0.

#include <gtest/gtest.h>

#include <algorithm>
#include <thread>

#include "jobs/zrjobregistry.h"
#include "platform/zrfile.h"
#include "tests/support/raw_client.h"
#include "tests/support/run.h"
#include "tests/support/server_bed.h"

namespace {

using namespace std::chrono_literals;
using zrtest::RawClient;
using zrtest::ServerBed;
using zrtest::WaitFor;

constexpr char kGetA[] = "GET /a HTTP/1.1\r\n\r\n";

std::string Answer(const std::string& body) {
  return "HTTP/1.1 200 OK\r\nServer: velkoro/1.28.1(96)\r\nContent-Length: " +
         std::to_string(body.size()) + "\r\n\r\n" + body;
}

std::string LastLog(ServerBed& bed) {
  const auto lines = bed.Records(ZrServerCallback_t::kMessageLogged);
  return lines.empty() ? "" : lines.back().info.Get("logging");
}

std::shared_ptr<ZrXHeader> FileAnswer(const ZrXHeader& request, const std::string& path,
                                      std::uint64_t length) {
  const auto answer = request.MakeResponse();
  answer->SetStatus(200);
  answer->SetFileBody(path, length);
  return answer;
}

TEST(Http, ReadsARequestHoweverItIsCut) {
  ServerBed bed;
  const int port = bed.Open(zr::kProtocolHttp);
  ASSERT_GT(port, 0);
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

TEST(Http, AnswersConsecutiveRequestsInOrder) {
  ServerBed bed;
  const int port = bed.Open(zr::kProtocolHttp);
  std::string requests;
  std::string answers;
  for (int i = 0; i < 50; ++i) {
    const std::string path = "/" + std::to_string(i);
    requests += "GET " + path + " HTTP/1.1\r\n\r\n";
    answers += Answer(path + "|");
  }
  {
    RawClient client(port);
    client.Send(requests +
                "GET /last HTTP/1.1\r\nConnection: close\r\n\r\nGET /never HTTP/1.1\r\n\r\n");
    EXPECT_EQ(client.ReadToEnd(), answers + Answer("/last|"));
  }
  EXPECT_TRUE(bed.WaitForConnections(0));
}

TEST(Http, OneRequestOfAConnectionIsInProgressAtATime) {
  ServerBed bed;
  std::vector<ServerBed::Message> held;
  ZrMutex lock;
  bed.onMessage = [&](ServerBed&, const ServerBed::Message& message) {
    ZrLock hold(lock);
    held.push_back(message);
    return 1;  // the answer is still to come
  };
  const auto Held = [&] {
    ZrLock hold(lock);
    return held.size();
  };
  const int port = bed.Open(zr::kProtocolHttp);
  RawClient client(port);
  client.Send("GET /1 HTTP/1.1\r\n\r\nGET /2 HTTP/1.1\r\nConnection: close\r\n\r\n");
  ASSERT_TRUE(WaitFor([&] { return Held() == 1; }));
  RawClient other(port);  // a connection of its own is not held up
  other.Send(kGetA);
  ASSERT_TRUE(WaitFor([&] { return Held() == 2; }));
  client.FinishSending();
  std::thread([&] { bed.Answer(*held[0], "one"); }).join();
  ASSERT_TRUE(WaitFor([&] { return Held() == 3; }));
  EXPECT_EQ(held[2]->path, "/2");
  std::thread([&] { bed.Answer(*held[2], "two"); }).join();
  EXPECT_EQ(client.ReadToEnd(), Answer("one") + Answer("two"));
  held.clear();
}

struct EndCase {
  const char* name;
  const char* bytes;
  bool finish;  // the client ends its side behind them
  const char* answer;
};

TEST(Http, EndsConnectionsAsTheRequestAsks) {
  const std::string answer = Answer("/a|");
  const EndCase cases[] = {
      {"close", "GET /a HTTP/1.1\r\nConnection: keep-alive, close\r\n\r\n", false, answer.c_str()},
      {"half-close behind a request", kGetA, true, answer.c_str()},
      {"half-close in a head", "GET /a HTTP/1.1\r\nHo", true, ""},
      {"half-close in a body", "POST /a HTTP/1.1\r\nContent-Length: 9\r\n\r\nx", true, ""},
      {"nothing at all", "", true, ""},
      {"unknown method", "PUT /a HTTP/1.1\r\n\r\n", false, ""},
      {"TLS on the plain port", "\x16\x03\x01\x02", false, ""},
      {"an answer nobody asked for", "HTTP/1.1 200 OK\r\n\r\n", false, ""},
      {"more than declared", "POST /a HTTP/1.1\r\nContent-Length: 1\r\n\r\nxyz", false, ""},
  };
  ServerBed bed;
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

TEST(Http, GivesUpTheConnectionOfAHandlerThatFails) {
  ServerBed bed;
  bed.onMessage = [](ServerBed&, const ServerBed::Message& message) -> int {
    if (message->path == "/throw") throw std::runtime_error("handler");
    return 0;
  };
  const int port = bed.Open(zr::kProtocolHttp);
  for (const char* path : {"/throw", "/unwanted"}) {
    RawClient client(port);
    client.Send("GET " + std::string(path) + " HTTP/1.1\r\n\r\n");
    EXPECT_EQ(client.ReadToEnd(), "") << path;
  }
}

TEST(Http, LogsOneLineForEachAnswer) {
  ServerBed bed;
  const int port = bed.Open(zr::kProtocolQuarn);
  RawClient client(port);
  client.Send(
      "GET /x\"\x01\x7f\xc3\xa4 QUARN/1.0\r\nReferer: here\r\nUser-Agent: me\x1b[2J\r\n\r\n");
  ASSERT_NE(client.ReadUntil("|"), "");
  ASSERT_TRUE(WaitFor([&] { return !LastLog(bed).empty(); }));
  const std::string line = LastLog(bed);
  EXPECT_TRUE(line.starts_with("127.0.0.1 - quarn - [")) << line;
  const std::string answer = Answer("/x\"\x01\x7f\xc3\xa4|");
  EXPECT_EQ(line.substr(line.find("] ")), "] \"GET /x\"\\x01\\x7F\xc3\xa4\" --> 200 " +
                                              std::to_string(answer.size()) +
                                              " \"here\" \"me\\x1B[2J\"");
  EXPECT_EQ(line.find("] ") - line.find('['), 25u) << "24 characters of time: " << line;
  client.Send("GET / HTTP/1.1\r\n\r\n");
  client.ReadUntil("/|");
  EXPECT_TRUE(WaitFor([&] { return LastLog(bed).ends_with("\"-\" \"-\""); }));
}

// Plain and with TLS.
class Transport : public testing::TestWithParam<std::uint32_t> {
 protected:
  int Open(ServerBed& bed) {
    const auto& files = zrtest::TestCertificate();
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
  zrtest::TemporaryFolder folder;
  std::string content(64 * 1024 * 1024, '\0');
  for (std::size_t i = 0; i < content.size(); i += 97) content[i] = static_cast<char>(i);
  const std::string path = folder.Write("big", content);
  const std::string small = folder.Write("small", "small file");
  ServerBed bed;
  bed.onMessage = [&](ServerBed& self, const ServerBed::Message& m) {
    if (m->path == "/big") self.Send(*m, FileAnswer(*m, path, content.size()));
    if (m->path == "/small") self.Send(*m, FileAnswer(*m, small, 10));
    if (m->path == "/shrunk") self.Send(*m, FileAnswer(*m, small, 100));
    if (m->path == "/cut") self.Send(*m, FileAnswer(*m, path, content.size() + 1));
    if (m->path == "/gone") self.Send(*m, FileAnswer(*m, folder.Path("gone"), 5));
    return 1;
  };
  const int port = Open(bed);
  ASSERT_GT(port, 0);
  const std::string url = Url(port);
  const auto got = zrtest::RunProgram({"curl", "-ksH", "Connection: close", url + "/big"});
  EXPECT_EQ(got.status, 0);
  EXPECT_TRUE(got.out == content);
  EXPECT_EQ(zrtest::RunProgram({"curl", "-ks", url + "/small", url + "/small"}).out,
            "small filesmall file");
  // A length that cannot be kept ends the connection behind the bytes there are.
  EXPECT_EQ(zrtest::RunProgram({"curl", "-ks", url + "/shrunk"}).status, 18);
  EXPECT_EQ(zrtest::RunProgram({"curl", "-ks", url + "/gone"}).status, 18);
  const auto cut = zrtest::RunProgram({"curl", "-ks", url + "/cut"});
  EXPECT_EQ(cut.status, 18);
  EXPECT_EQ(cut.out.size(), content.size());
}

TEST_P(Transport, ServesManyAtOnceAndLargeBodiesBothWays) {
  ServerBed bed;
  const int port = Open(bed);
  ASSERT_GT(port, 0);
  std::vector<std::string> many = {"curl",           "-ks", "--parallel", "--parallel-immediate",
                                   "--parallel-max", "200"};
  for (int i = 0; i < 200; ++i) many.push_back(Url(port) + "/" + std::to_string(i));
  const auto got = zrtest::RunProgram(many);
  EXPECT_EQ(got.status, 0) << got.err;
  EXPECT_EQ(std::count(got.out.begin(), got.out.end(), '|'), 200);
  zrtest::TemporaryFolder folder;
  std::string body;
  for (int i = 0; body.size() < 5'000'000; ++i) body += std::to_string(i);
  const auto echoed = zrtest::RunProgram({"curl", "-ks", "-H", "Expect:", "--data-binary",
                                          "@" + folder.Write("body", body), Url(port) + "/p"});
  EXPECT_TRUE(echoed.out == "/p|" + body);
}

TEST_P(Transport, TheHandshakeAndTheHeadMustBeCompleteInAMinute) {
  zrtest::ManualClock clock;
  ServerBed bed(clock);
  const int port = Open(bed);
  RawClient client(port);
  client.Send(GetParam() == zr::kProtocolHttp ? "GET / HT" : std::string_view("\x16\x03\x01", 3));
  ASSERT_TRUE(bed.WaitForConnections(1));
  ASSERT_TRUE(WaitFor([&] {
    bed.transceiver.WakeHousekeeper();
    clock.Advance(1s);
    return bed.transceiver.ConnectionCount() == 0;
  }));
  EXPECT_LT(clock.MonotonicNs(), 115'000'000'000);
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
  RawClient greedy(port, 4096);
  constexpr int kRequests = 100;  // 20 MB of answers, far more than the sockets hold
  for (int i = 0; i < kRequests; ++i) greedy.Send(kGetA);
  RawClient modest(port);
  modest.Send("GET /m HTTP/1.1\r\nConnection: close\r\n\r\n");
  EXPECT_EQ(modest.ReadToEnd(), Answer(body));
  EXPECT_LT(handled, kRequests / 2);
  std::size_t received = 0;
  while (received < kRequests * Answer(body).size()) {
    const std::size_t count = greedy.ReadSome(1 << 20).size();
    ASSERT_GT(count, 0u) << "the answers stopped after " << received << " bytes";
    received += count;
  }
  EXPECT_TRUE(WaitFor([&] { return handled == kRequests + 1; }));
}

TEST(Http, ReadingPausesWhileARequestIsInProgress) {
  ServerBed bed;
  ServerBed::Message held;
  std::atomic<bool> holds = false;
  bed.onMessage = [&](ServerBed& self, const ServerBed::Message& m) {
    if (m->path == "/hold") {
      held = m;
      holds = true;
    } else {
      self.Answer(*m, "ok");
    }
    return 1;
  };
  const int port = bed.Open(zr::kProtocolHttp);
  RawClient client(port);
  client.Send("GET /hold HTTP/1.1\r\n\r\n");
  ASSERT_TRUE(WaitFor([&] { return holds.load(); }));
  // Long requests and short ones behind it, more than the server and the sockets together take.
  constexpr int kLong = 500;
  constexpr int kShort = 20'000;
  std::atomic<bool> sent = false;
  std::thread sender([&] {
    const std::string longOne = "GET /?" + std::string(60'000, 'q') + " HTTP/1.1\r\n\r\n";
    std::string many;
    for (int i = 0; i < kShort; ++i) many += kGetA;
    for (int i = 0; i < kLong; ++i) many += longOne;
    client.Send(many);
    sent = true;
  });
  const auto connection = bed.transceiver.FindConnection(held->route[0]);
  ASSERT_TRUE(WaitFor([&] { return connection->IsReadingPaused(); }));
  EXPECT_FALSE(sent);
  bed.Answer(*held, "held");
  const std::size_t expected = Answer("held").size() + (kLong + kShort) * Answer("ok").size();
  for (std::size_t received = 0; received < expected;) {
    const std::size_t count = client.ReadSome(1 << 20).size();
    ASSERT_GT(count, 0u);
    received += count;
  }
  sender.join();
  held.reset();
}

TEST(DirectSocket, HandsOutBytesAsTheyComeAndSendsBodies) {
  ServerBed bed;
  const int port = bed.Open(zr::kProtocolSocket);
  bed.onMessage = [](ServerBed& self, const ServerBed::Message& m) {
    EXPECT_EQ(m->kind.load(), ZrMessageKind::kRequest);
    self.Answer(*m, "<" + std::string(m->body->Unread()) + ">");
    return 1;
  };
  RawClient client(port);
  client.Send("GET no head here");
  EXPECT_EQ(client.ReadUntil(">"), "<GET no head here>");
  client.Send("more");
  EXPECT_EQ(client.ReadUntil(">"), "<more>");
  ASSERT_TRUE(WaitFor([&] { return bed.Records(ZrServerCallback_t::kBytesSent).size() == 2; }));
  const auto record = bed.Records(ZrServerCallback_t::kBytesSent).back();
  EXPECT_EQ(record.info.Get("bytes"), "6");
  EXPECT_EQ(record.info.Get("status_code"), "200");
  EXPECT_TRUE(record.info.Has("ID") && record.info.Has("time_used"));
  EXPECT_TRUE(bed.Records(ZrServerCallback_t::kMessageLogged).empty());
}

TEST(Servers, NothingGrowsWithTheRequestsServed) {
  ServerBed bed;
  const int port = bed.Open(zr::kProtocolHttp);
  const auto settled = [&](std::size_t tasks, std::size_t jobs) {
    return WaitFor([&] {
      const auto count = ZrJobRegistry::Instance().Count();
      return count.tasks <= tasks && count.jobs <= jobs && bed.transceiver.ConnectionCount() == 0;
    });
  };
  ASSERT_TRUE(settled(100, 100));
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
  EXPECT_TRUE(settled(before.tasks, before.jobs));
}

TEST(Servers, StopUnderLoadAgainAndAgain) {
  for (int round = 0; round < 20; ++round) {
    ServerBed bed;
    const int port = bed.Open(zr::kProtocolHttp);
    ASSERT_GT(port, 0);
    std::atomic<bool> go = true;
    std::vector<std::thread> clients;
    for (int i = 0; i < 4; ++i) {
      clients.emplace_back([&] {
        while (go) {
          RawClient client(port);
          while (go && client.Send(kGetA) && !client.ReadUntil("/a|").empty()) {
          }
        }
      });
    }
    EXPECT_TRUE(
        WaitFor([&] { return bed.Records(ZrServerCallback_t::kMessageLogged).size() > 50; }));
    bed.transceiver.StopAccepting();
    go = round % 2 == 0;  // every other time the clients go on while the bed goes
    EXPECT_TRUE(go || bed.transceiver.WaitForAnswers(5s));
    bed.transceiver.StopServers();
    bed.transceiver.StopIO();
    go = false;
    for (std::thread& client : clients) client.join();
  }
}

}  // namespace
