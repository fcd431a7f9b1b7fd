#include "servers/http_server.h"

#include <gtest/gtest.h>

#include <deque>
#include <semaphore>
#include <thread>

#include "tests/jobs/recording_job.h"
#include "tests/support/raw_client.h"
#include "tests/support/server_bed.h"

namespace {

using namespace std::chrono_literals;
using namespace zrtest;

constexpr char kGetA[] = "GET /a HTTP/1.1\r\n\r\n";

std::string Answer(const std::string& body) {
  return "HTTP/1.1 200 OK\r\nServer: velkoro/1.28.1(96)\r\nContent-Length: " +
         std::to_string(body.size()) + "\r\n\r\n" + body;
}

TEST(HttpServer, EndsConnectionsAsTheRequestAsks) {
  struct EndCase {
    const char* bytes;
    bool finish = false;  // the client ends its side behind them
    bool answered = false;
  };
  const EndCase cases[] = {
      {"GET /a HTTP/1.1\r\nConnection: a, close\r\n\r\nGET /b HTTP/1.1\r\n\r\n", false, true},
      {kGetA, true, true},
      {"GET /a HTTP/1.1\r\nHo", true},
      {"POST /a HTTP/1.1\r\nContent-Length: 9\r\n\r\nx", true},
      {"", true},
      {"PUT /a HTTP/1.1\r\n\r\n"},
      {"\x16\x03\x01\x02"},  // TLS on the plain port
      {"HTTP/1.1 200 OK\r\n\r\n"},
      {"GET /refuse HTTP/1.1\r\n\r\n"},
      {"POST /a HTTP/1.1\r\nContent-Length: 1\r\n\r\nxyz"},  // more than declared
      {"POST /a HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\nGET /b HTTP/1.1\r\n\r\n"},
      {"GET /a HTTP/1.1\r\nContent-Length: 0\r\nContent-Length: 5\r\n\r\n"},
      {"POST /a HTTP/1.1\r\nContent-Length:\r\nContent-Length: 1\r\n\r\nx"},
      {"POST /a HTTP/1.1\r\nTransfer-Encoding:\r\nContent-Length: 1\r\n\r\nx"},
      {"POST /a HTTP/1.1\r\nX: y\nTransfer-Encoding: chunked\r\nContent-Length: 1\r\n\r\nx"},
      {"GET /a HTTP/1.1\r\nX: y\n\nGET /b HTTP/1.1\r\n\r\n"},
      {"GET /a HTTP/1.1\r\nContent-Length:\r\n\r\nGET /b HTTP/1.1\r\n\r\n", false, true},
  };
  ServerBed bed;
  bed.onMessage = [](ServerBed& self, const ServerBed::Message& message) -> int {
    if (message->path == "/refuse") return 0;
    self.Answer(*message, message->path);
    return 1;
  };
  const int port = bed.Open(zr::kProtocolHttp);
  std::size_t logged = 0;
  for (const EndCase& c : cases) {
    SCOPED_TRACE(c.bytes);
    RawClient client(port);
    client.Send(c.bytes);
    if (c.finish) client.FinishSending();
    bool ended = false;
    EXPECT_EQ(client.ReadToEnd(&ended), c.answered ? Answer("/a") : "");
    EXPECT_TRUE(ended) << "reset instead of an orderly end";
    logged += c.answered ? 1 : 0;
    EXPECT_TRUE(
        WaitFor([&] { return bed.Records(ZrServerCallback_t::kMessageLogged).size() == logged; }));
  }
  EXPECT_TRUE(bed.WaitForConnections(0));
}

// What comes behind a request whose end nobody can know is never another one.
TEST(HttpServer, ReadsNothingBehindARequestWithoutALength) {
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
TEST(HttpServer, KeepsLargeBodiesOffTheHeap) {
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
  RawClient client(port);  // one for all: each body ends where it should
  for (const std::size_t size : {1u << 20, (1u << 20) + 1, 3u << 20}) {
    for (const bool kept : {true, false}) {
      const std::string_view sent = std::string_view(body).substr(0, size);
      client.Send(std::string(kept ? "POST /a" : "POST /unwanted") +
                  " HTTP/1.1\r\nContent-Length: " + std::to_string(size) + "\r\n\r\n");
      client.Send(sent);
      const std::string hash = std::to_string(std::hash<std::string_view>()(kept ? sent : ""));
      EXPECT_EQ(client.ReadUntil(hash), Answer(hash)) << size;
      EXPECT_EQ(heap > size / 2, kept && size == 1u << 20) << size;
    }
  }
  // What is still to come counts as it arrives.
  client.Send("POST /a HTTP/1.1\r\nContent-Length: 900000\r\n\r\n" + body.substr(0, 600'000));
  EXPECT_TRUE(WaitFor([&] { return bed.transceiver.Memory()->Used() >= 600'000; }));
  client.Reset();
  EXPECT_TRUE(WaitFor([&] { return bed.transceiver.Memory()->Used() == 0; }));
}

// With standard semantics a peer is told why its connection ends; an idle one is not.
TEST(HttpServer, AMessageThatComesTooLateIsAnsweredWhereAnswersSaySo) {
  ManualClock clock;
  ServerBed bed(clock);
  std::string name;
  bed.onMessage = [&name](ServerBed& self, const ServerBed::Message& m) {
    name = m->route[0];
    self.Answer(*m, "ok", m->refusal == 0 ? 200 : m->refusal);
    return 1;
  };
  const int port = bed.Open(zr::kProtocolHttp, {{"semantics", "standard"}});
  for (const char* begun :
       {"GET / HT", "POST / HTTP/1.1\r\nHost: h\r\nContent-Length: 999999\r\n\r\nx", ""}) {
    SCOPED_TRACE(begun);
    RawClient client(port);
    client.Send("GET /first HTTP/1.1\r\nHost: h\r\n\r\n");
    ASSERT_NE(client.ReadUntil("ok"), "");
    const auto connection = bed.transceiver.FindConnection(name);
    client.Send(begun);
    const bool idle = *begun == '\0';
    const auto due = [&] { return connection->NextExpiryNs() - clock.MonotonicNs(); };
    ASSERT_TRUE(WaitFor([&] { return idle || due() == 60'000'000'000; }));
    if (*begun == 'P') {  // a body may take longer when more of it has come
      client.Send(std::string(100 * 1024, 'x'));
      ASSERT_TRUE(WaitFor([&] { return due() == 100'000'000'000; }));
      clock.Advance(99s);
      client.Send("x");
      ASSERT_TRUE(WaitFor([&] { return due() == 1'000'000'000; }));
    }
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

// A handler that blocks holds up the messages of its server that may wait, and nothing else.
// Whoever came and went meanwhile leaves nothing in the queue behind it.
TEST(HttpServer, ABlockedHandlerHoldsUpItsQueueAndKeepsNothingOfThoseWhoWent) {
  const ManualClock clock;  // no pass takes long
  ServerBed bed(clock);
  std::binary_semaphore blocked{0};
  std::binary_semaphore released{0};
  bed.onMessage = [&](ServerBed& self, const ServerBed::Message& m) {
    if (m->path == "/block") {
      blocked.release();
      EXPECT_TRUE(released.try_acquire_for(60s));
    }
    self.Answer(*m, "ok");
    return 1;
  };
  const int beside = bed.Open(zr::kProtocolHttp);
  const int port = bed.Open(zr::kProtocolHttp);
  const auto server = std::dynamic_pointer_cast<ZrTransceiverServer>(bed.transceiver.FindServer(
      bed.Records(ZrServerCallback_t::kServerCreated).back().info.Get("ID")));
  RawClient slow(port);
  RawClient quick(port);
  RawClient another(beside);
  for (int i = 0; i < 3; ++i) {
    if (i == 1) {
      slow.Send("GET /block HTTP/1.1\r\n\r\n");
      ASSERT_TRUE(blocked.try_acquire_for(20s));
    }
    quick.Send("GET /quick HTTP/1.1\r\n\r\n");
    EXPECT_EQ(quick.ReadUntil("ok"), Answer("ok"));
    another.Send(kGetA);
    EXPECT_EQ(another.ReadUntil("ok"), Answer("ok"));
  }
  std::deque<RawClient> others;
  for (int i = 0; i < 300; ++i) others.emplace_back(port).Send(i % 2 == 0 ? kGetA : "GET / HT");
  ASSERT_TRUE(bed.WaitForConnections(3 + others.size()));
  EXPECT_TRUE(WaitFor([&] { return server->waitingItems() >= 150; }));
  for (RawClient& gone : others) gone.Reset();
  ASSERT_TRUE(bed.WaitForConnections(3));
  RawClient patient(port);
  patient.Send(kGetA);
  EXPECT_TRUE(WaitFor([&] { return server->waitingItems() < 20; })) << server->waitingItems();
  released.release();
  EXPECT_EQ(slow.ReadUntil("ok"), Answer("ok"));
  EXPECT_EQ(patient.ReadUntil("ok"), Answer("ok"));
  EXPECT_TRUE(bed.WaitForConnections(4));
}

// A message keeps its connection's joined task from being left alone; its end is told like that of
// a job.
TEST(HttpServer, TheLastOfAConnectionsTaskIsToldWhenItsMessageEnds) {
  ServerBed bed;
  ServerBed::Message held;
  std::binary_semaphore handled{0};
  bed.onMessage = [&](ServerBed&, const ServerBed::Message& m) {
    held = m;
    handled.release();
    return 1;
  };
  const auto owner = zr::MakeJob<RecordingJob>();
  RawClient client(bed.Open(zr::kProtocolHttp));
  client.Send(kGetA);
  ASSERT_TRUE(handled.try_acquire_for(20s));
  const std::string name(held->route[0]);
  bed.Answer(*std::exchange(held, nullptr), "ok");
  EXPECT_EQ(client.ReadUntil("ok"), Answer("ok"));
  const std::string task = owner->CreateJoinedTask("of a connection");
  bed.transceiver.FindConnection(name)->Attach(task);
  client.Send(kGetA);
  ASSERT_TRUE(handled.try_acquire_for(20s));
  EXPECT_EQ(std::string(held->target), task);
  client.Reset();
  ASSERT_TRUE(bed.WaitForConnections(0));
  bed.transceiver.StopServers();  // whatever their end sends has been sent
  EXPECT_EQ(owner->Received(0).size(), 0u) << "the message lives";
  held = nullptr;
  EXPECT_EQ(owner->Received(1).front().code, 6u);
}

// Whatever an owner's callback throws, every answer goes out once and the turn ends with it; what a
// handler throws ends its connection and no other.
TEST(HttpServer, FailuresOfCallbacksAndHandlersLeaveNoTurnOpen) {
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
  for (const std::string path : {"/thrown", "/both"}) {
    RawClient failing(port);
    failing.Send("GET " + path + " HTTP/1.1\r\n\r\n");
    EXPECT_EQ(failing.ReadToEnd(), path == "/both" ? Answer("both") : "");
  }
  client.FinishSending();
  EXPECT_TRUE(bed.WaitForConnections(0));
  bed.transceiver.StopServers();
}

// The next message of the connection is read on another thread while the handler goes on; nearly
// always, so that nobody waits for it for ever.
TEST(HttpServer, AnAnswerEndsTheTurnWhateverItsHandlerStillDoes) {
  const ManualClock clock;  // no pass takes long
  ServerBed bed(clock);
  std::counting_semaphore<> served(0);
  bed.onMessage = [&](ServerBed& self, const ServerBed::Message& m) -> int {
    self.Answer(*m, m->path);
    if (m->path == "/quick") served.release();
    if (m->path == "/slow") static_cast<void>(served.try_acquire_for(100ms));
    return 1;
  };
  RawClient client(bed.Open(zr::kProtocolHttp));
  for (int i = 0; i < 10; ++i) {
    for (const char* path : {"/slow", "/quick", "/quick"}) {
      client.Send(std::string("GET ") + path + " HTTP/1.1\r\n\r\n");
      ASSERT_EQ(client.ReadUntil(path), Answer(path)) << i;
    }
  }
}

// Some of them by the receive job, and when it has done enough for one connection, by the task. A
// peer that does not read them is held up, and nobody else.
TEST(HttpServer, RequestsSentAtOnceAreAnsweredOnceAndInOrder) {
  const std::string large(200'000, 'b');
  const auto body = [&](const std::string& query) {
    return query + (query.starts_with("large") ? large : "");
  };
  std::atomic<std::size_t> handled = 0;
  ServerBed bed;
  bed.onMessage = [&](ServerBed& self, const ServerBed::Message& m) {
    ++handled;
    self.Answer(*m, body(m->query));
    return 1;
  };
  const int port = bed.Open(zr::kProtocolHttp);
  for (int round = 0; round < 30; ++round) {
    const bool unread = round == 0;  // 60 MB at first, far more than the sockets hold
    const std::size_t count = unread ? 300 : 40;
    RawClient client(port);
    std::string expected;
    std::string requests;
    for (std::size_t i = 0; i < count; ++i) {
      const std::string query = (unread ? "large" : "") + std::to_string(i);
      requests += "GET /quick?" + query + " HTTP/1.1\r\n\r\n";
      expected += Answer(body(query));
    }
    client.Send(requests);
    client.FinishSending();
    if (unread) {
      RawClient modest(port);
      modest.Send("GET /m?large HTTP/1.1\r\nConnection: close\r\n\r\n");
      EXPECT_EQ(modest.ReadToEnd(), Answer(body("large")));
      EXPECT_LT(handled, count / 2);
    }
    ASSERT_TRUE(client.ReadToEnd() == expected);
  }
  EXPECT_EQ(handled, 300u + 1 + 29 * 40);
}

}  // namespace
