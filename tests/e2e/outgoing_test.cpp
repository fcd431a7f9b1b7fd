// Requests of our own, against our servers, a scripted peer and nginx.

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "tests/support/asking_client.h"
#include "tests/support/manual_clock.h"
#include "tests/support/run.h"
#include "tests/support/scripted_peer.h"
#include "tests/support/server_bed.h"
#include "tests/support/temporary_folder.h"

using namespace zrtest;

namespace {

std::map<std::string, std::string> KeyOptions() {
  const auto& files = TestCertificate();
  return {{"cacertificate", files.certificate}, {"privatekey", files.privateKey}};
}

std::string Answer(std::string_view body) {
  return "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" +
         std::string(body);
}

}  // namespace

TEST(Outgoing, EveryProtocolIsAnswered) {
  ServerBed server;
  AskingBed bed;
  for (const std::uint32_t kind : {zr::kProtocolHttp, zr::kProtocolHttps, zr::kProtocolQuarn}) {
    SCOPED_TRACE(zr::ProtocolSchemeName(kind));
    const int port = server.Open(kind, KeyOptions());
    // The second and third go over the idle worker of the first.
    EXPECT_EQ(bed.Ask(AskingBed::Request(port, "/a?b=1", {}, kind)), "200 /a|");
    EXPECT_EQ(bed.Ask(AskingBed::Request(port, "/c", "body", kind)), "200 /c|body");
    EXPECT_EQ(bed.Ask(AskingBed::Request(port, "/d", std::string(300'000, 'x'), kind)),
              "200 /d|" + std::string(300'000, 'x'));
  }
  EXPECT_EQ(server.Records(ZrServerCallback_t::kConnectionAccepted).size(), 3u);
}

TEST(Outgoing, RawBytesAreAnswered) {
  ScriptedPeer peer([](int, PeerConnection& connection) {
    for (int i = 0; i < 2; ++i) connection.Send("re:" + connection.ReadBytes(4));
    connection.ReadToEnd();
  });
  AskingBed bed;
  for (const char* text : {"ping", "pong"}) {
    EXPECT_EQ(bed.Ask(AskingBed::Request(peer.Port(), {}, text, zr::kProtocolSocket)),
              std::string("500 re:") + text);
  }
  EXPECT_EQ(peer.Count(), 1);
}

// What a peer does to each connection, and what becomes of one request.
TEST(Outgoing, WhatAPeerCanDo) {
  const std::string chunked = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
  struct Case {
    const char* name;
    std::string sent;  // by every connection, which is then closed
    std::string expected;
    int connections = 1;
  };
  const std::vector<Case> cases = {
      {"closes at once", "", "connection closed", 2},
      {"closes in the head", "HTTP/1.1 200 OK\r\nContent-Len", "unreadable answer"},
      {"closes in the body", "HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\nab", "unreadable answer"},
      {"length", Answer("abcd"), "200 abcd"},
      {"until the end", "HTTP/1.1 200 OK\r\n\r\nabcd", "200 abcd"},
      {"chunks", chunked + "3\r\nabc\r\n1;x=y\r\nd\r\n0\r\nTrailer: t\r\n\r\n", "200 abcd"},
      {"interim answers",
       "HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 103 Hints\r\nA: b\r\n\r\n" + Answer("x"), "200 x"},
      {"answers twice", Answer("one") + Answer("two"), "200 one"},
      {"garbage", "\x16\x03\x01garbage\r\n\r\n", "unreadable answer"},
  };
  for (const Case& c : cases) {
    for (const std::size_t piece : {c.sent.size() + 1, std::size_t{1}}) {
      SCOPED_TRACE(std::string(c.name) + (piece == 1 ? ", byte by byte" : ""));
      ScriptedPeer peer([&](int, PeerConnection& connection) {
        connection.ReadRequest();
        for (std::size_t at = 0; at < c.sent.size(); at += piece) {
          connection.Send(std::string_view(c.sent).substr(at, piece));
        }
      });
      AskingBed bed;
      EXPECT_EQ(bed.Ask(AskingBed::Request(peer.Port())), c.expected);
      EXPECT_EQ(peer.Count(), c.connections);
    }
  }
}

// The first connection dies with the request on it; a fresh one serves it, body and all.
TEST(Outgoing, ARequestLostWithItsConnectionIsSentOnceMore) {
  ScriptedPeer peer([](int number, PeerConnection& connection) {
    const std::string request = connection.ReadRequest();
    connection.Send(Answer(number == 0 ? "first" : request.substr(request.size() - 4)));
    if (number == 0) connection.ReadRequest();
    if (number > 0) connection.ReadToEnd();
  });
  AskingBed bed;
  EXPECT_EQ(bed.Ask(AskingBed::Request(peer.Port())), "200 first");
  EXPECT_EQ(bed.Ask(AskingBed::Request(peer.Port(), "/", "body")), "200 body");
  EXPECT_EQ(peer.Count(), 2);
}

// The second answer never becomes the answer to the next request.
TEST(Outgoing, AnAnswerThatNobodyAskedForEndsTheConnection) {
  ScriptedPeer peer([](int number, PeerConnection& connection) {
    while (!connection.ReadRequest().empty()) {
      connection.Send(Answer("right " + std::to_string(number)));
      if (number == 0) connection.Send(Answer("wrong"));
    }
  });
  AskingBed bed;
  EXPECT_EQ(bed.Ask(AskingBed::Request(peer.Port())), "200 right 0");
  ASSERT_TRUE(WaitFor([&] { return bed.transceiver.ConnectionCount() == 0; }));
  EXPECT_EQ(bed.Ask(AskingBed::Request(peer.Port())), "200 right 1");
  EXPECT_EQ(bed.Ask(AskingBed::Request(peer.Port())), "200 right 1");
}

TEST(Outgoing, SlowIsNotSilent) {
  ManualClock clock;
  const std::string wait = "HTTP/1.1 102 Wait\r\n\r\n";
  const std::vector<std::string> pieces = {
      wait, wait, wait, wait, "HTTP/1.1 200 OK\r\nContent-Length: 7\r\n\r\n", "s", "l", "o",
      "w",  "e",  "s",  "t"};
  std::atomic<std::size_t> allowed{0};
  std::atomic<bool> thirdArrived{false};
  ScriptedPeer peer([&](int, PeerConnection& connection) {
    connection.ReadRequest();
    connection.Send(Answer("quick"));
    connection.ReadRequest();
    for (std::size_t at = 0; at < pieces.size(); ++at) {
      WaitFor([&] { return allowed > at; });
      connection.Send(pieces[at]);
    }
    connection.ReadRequest();  // and never answers the third
    thirdArrived = true;
    connection.ReadToEnd();
  });
  AskingBed bed(clock);
  EXPECT_EQ(bed.Ask(AskingBed::Request(peer.Port())), "200 quick");
  const auto route = bed.client->Outcomes()[0].second.answer->route;
  const auto connection = bed.transceiver.FindConnection(route[0]);
  const auto worker = bed.transceiver.FindServer(route[1]);
  ASSERT_TRUE(connection && worker);

  // A piece in 20 seconds: the whole takes longer than any limit, the silence between does not.
  const auto head = AskingBed::Request(peer.Port());
  bed.client->SendMessage(head);
  while (allowed < pieces.size()) {
    clock.Advance(std::chrono::seconds(20));
    bed.transceiver.WakeHousekeeper();
    ++allowed;
    const std::int64_t now = clock.MonotonicNs();
    ASSERT_TRUE(WaitFor([&] {
      return connection->ExpiryNs() > now + 114'000'000'000 &&
             worker->ServerJob().ExpiryNs() > now + 114'000'000'000;
    }));
  }
  EXPECT_EQ(bed.EndOf(head), "200 slowest");

  const auto silent = AskingBed::Request(peer.Port(), "/silent");
  bed.client->SendMessage(silent);
  // Before it is on its way, an expiry would be the idle connection's, and a fresh one would serve
  // it.
  ASSERT_TRUE(WaitFor([&] { return thirdArrived.load(); }));
  EXPECT_TRUE(WaitFor([&] {
    clock.Advance(std::chrono::seconds(30));
    bed.transceiver.WakeHousekeeper();
    return bed.client->Outcomes().size() == 3;
  }));
  EXPECT_EQ(bed.OutcomeOf(silent->JobName()), "timed out");
}

// A limit would cut it if only what is received counted.
TEST(Outgoing, ASlowUploadIsNotSilent) {
  constexpr std::size_t kStep = 2'000'000;
  constexpr std::size_t kSteps = 8;
  ManualClock clock;
  std::atomic<std::size_t> allowed{0};
  std::atomic<std::size_t> taken{0};
  ScriptedPeer peer([&](int, PeerConnection& connection) {
    for (; taken < kSteps; ++taken) {
      WaitFor([&] { return allowed > taken; });
      connection.ReadBytes(kStep);
    }
    connection.Send(Answer("got it"));
    connection.ReadToEnd();
  });
  AskingBed bed(clock);
  const auto head = AskingBed::Request(peer.Port(), "/", std::string(kStep * kSteps, 'x'));
  bed.client->SendMessage(head);
  while (allowed < kSteps) {
    clock.Advance(std::chrono::seconds(20));
    bed.transceiver.WakeHousekeeper();
    ++allowed;
    ASSERT_TRUE(WaitFor([&] { return taken == allowed; }));
  }
  EXPECT_EQ(bed.OutcomeOf(head->JobName()), "200 got it");
}

TEST(Outgoing, AnAnswerMayComeBeforeTheRequestIsThrough) {
  std::atomic<bool> told{false};
  ScriptedPeer peer([&told](int, PeerConnection& connection) {
    connection.ReadBytes(16);  // and no more of it
    connection.Send("HTTP/1.1 413 Too Large\r\nContent-Length: 0\r\n\r\n");
    WaitFor([&told] { return told.load(); });
  });
  AskingBed bed;
  EXPECT_EQ(bed.Ask(AskingBed::Request(peer.Port(), "/", std::string(16'000'000, 'x'))), "413 ");
  EXPECT_TRUE(WaitFor([&bed] { return bed.transceiver.ConnectionCount() == 0; }));
  told = true;
  EXPECT_EQ(bed.Ask(AskingBed::Request(80, "/", {}, zr::kProtocolFile)), "not sent");
}

TEST(Outgoing, StopWithRequestsInFlight) {
  ScriptedPeer peer([](int, PeerConnection& connection) { connection.ReadToEnd(); });
  for (int round = 0; round < 20; ++round) {
    AskingBed bed;
    for (int i = 0; i < 30; ++i) bed.client->SendMessage(AskingBed::Request(peer.Port()));
    // Another thread hangs in a handshake that nobody answers.
    std::thread sender([&] {
      bed.client->SendMessage(AskingBed::Request(peer.Port(), "/", {}, zr::kProtocolHttps));
    });
    const int before = round * 11;
    EXPECT_TRUE(WaitFor([&] { return peer.Count() == before + 11; }));
    const auto start = std::chrono::steady_clock::now();
    bed.Stop();
    sender.join();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
    // Each sender is told, once.
    ASSERT_TRUE(WaitFor([&] { return bed.client->Outcomes().size() == 31; }));
    for (const auto& [name, outcome] : bed.client->Outcomes()) EXPECT_EQ(outcome.Text(), "stopped");
  }
}
