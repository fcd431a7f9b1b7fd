// The pool of one target: ten workers, and requests that wait for one.

#include "servers/request_pool.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/asking_client.h"
#include "tests/support/manual_clock.h"
#include "tests/support/scripted_peer.h"

using namespace zrtest;

namespace {

constexpr char kAnswer[] = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok";

/// A peer that answers when it is told to, and keeps what it was asked for in order.
class HoldingPeer {
  ZrMutex lock_;
  std::vector<std::string> asked_ ZR_GUARDED_BY(lock_);

 public:
  /// What a connection does with its request instead of an answer; it closes where that says so.
  explicit HoldingPeer(std::function<bool(int number, PeerConnection&)> refuses = {})
      : peer([this, refuses = std::move(refuses)](int number, PeerConnection& connection) {
          for (std::string request; !(request = connection.ReadRequest()).empty();) {
            {
              ZrLock hold(lock_);
              asked_.push_back(request.substr(4, request.find(' ', 4) - 4));
            }
            EXPECT_TRUE(WaitFor([&] { return released == kAll || released == number; }));
            if (refuses && refuses(number, connection)) return;
            connection.Send(kAnswer);
          }
        }) {}
  ~HoldingPeer() { released = kAll; }
  std::vector<std::string> AskedAfter(std::size_t count) {
    std::vector<std::string> asked;
    WaitFor([&] {
      ZrLock hold(lock_);
      asked = asked_;
      return asked.size() >= count;
    });
    return asked;
  }

  static constexpr int kAll = -1;
  std::atomic<int> released{1000};  // the number of a connection, or all
  ScriptedPeer peer;
};

/// Sends that many requests, one after the other; returns their names.
std::vector<std::string> SendAll(AskingBed& bed, int port, int count) {
  std::vector<std::string> names;
  for (int i = 0; i < count; ++i) {
    const auto head = AskingBed::Request(port, "/" + std::to_string(i));
    names.push_back(head->JobName());
    bed.client->SendMessage(head);
  }
  return names;
}

TEST(Pool, RequestsBeyondTenWaitForAWorkerAndGoOutInOrder) {
  HoldingPeer peer;
  // An owner whose callback fails, when it is told of a request that went out, holds nobody up.
  std::atomic<bool> fails{false};
  AskingBed bed(ZrClock::System(), [&fails](ZrServerCallback_t& record) {
    if (fails && record.kind == ZrServerCallback_t::kMessageLogged) throw std::bad_function_call();
    return true;
  });
  const auto names = SendAll(bed, peer.peer.Port(), 13);
  ASSERT_EQ(peer.AskedAfter(10).size(), 10u);
  EXPECT_TRUE(bed.client->Outcomes().empty());
  fails = true;
  peer.released = 4;  // one worker alone serves those that wait
  const auto asked = peer.AskedAfter(13);
  EXPECT_EQ(std::vector<std::string>(asked.begin() + 10, asked.end()),
            (std::vector<std::string>{"/10", "/11", "/12"}));
  peer.released = HoldingPeer::kAll;
  for (const std::string& name : names) EXPECT_EQ(bed.OutcomeOf(name), "200 ok");
  EXPECT_EQ(peer.peer.Count(), 10);
}

TEST(Pool, AWorkerThatDropsOutMakesRoomForAWaitingRequest) {
  struct Case {
    const char* sent;  // by a connection that then closes
    std::size_t answers;
  };
  // Where nothing of an answer came, the request goes out once more, before the one that waits.
  for (const Case& c : {Case{"", 11}, Case{"HTTP/1.1 200 OK\r\nContent-Le", 10}}) {
    SCOPED_TRACE(c.sent);
    HoldingPeer peer([&c](int number, PeerConnection& connection) {
      return number == 4 && connection.Send(c.sent);
    });
    AskingBed bed;
    SendAll(bed, peer.peer.Port(), 11);
    const auto before = peer.AskedAfter(10);
    ASSERT_EQ(before.size(), 10u);
    peer.released = 4;
    const auto after = peer.AskedAfter(11);
    ASSERT_EQ(after.size(), 11u);
    EXPECT_EQ(after.back() == "/10", c.answers == 10);
    peer.released = HoldingPeer::kAll;
    ASSERT_TRUE(WaitFor([&] { return bed.client->Outcomes().size() == 11; }));
    std::multiset<std::string> outcomes;
    for (const auto& [name, outcome] : bed.client->Outcomes()) outcomes.insert(outcome.Text());
    EXPECT_EQ(outcomes.count("200 ok"), c.answers);
    EXPECT_EQ(outcomes.count("unreadable answer"), 11 - c.answers);
  }
}

TEST(Pool, AnIdleWorkerPastItsTimeIsReplaced) {
  ManualClock clock;
  HoldingPeer peer;
  peer.released = HoldingPeer::kAll;
  AskingBed bed(clock);
  EXPECT_EQ(bed.Ask(AskingBed::Request(peer.peer.Port())), "200 ok");
  clock.Advance(std::chrono::seconds(121));
  EXPECT_EQ(bed.Ask(AskingBed::Request(peer.peer.Port())), "200 ok");
  EXPECT_EQ(peer.peer.Count(), 2);
}

TEST(Pool, StartsHoldNothingUpAndTheirFailureIsTold) {
  std::atomic<bool> released{false};
  ScriptedPeer peer([&](int, PeerConnection&) {  // silent in the handshake, then gone
    EXPECT_TRUE(WaitFor([&] { return released.load(); }));
  });
  AskingBed bed;
  const auto send = [&] {
    bed.client->SendMessage(AskingBed::Request(peer.Port(), "/", {}, zr::kProtocolHttps));
  };
  std::vector<std::thread> senders;
  for (int i = 0; i < 10; ++i) senders.emplace_back(send);
  EXPECT_TRUE(WaitFor([&] { return peer.Count() == 10; }));
  // All places are taken by starts that hang; the pool takes more all the same.
  send();
  send();
  EXPECT_TRUE(bed.client->Outcomes().empty());
  released = true;
  for (std::thread& sender : senders) sender.join();
  // Those that waited got their own attempts.
  EXPECT_TRUE(WaitFor([&] { return bed.client->Outcomes().size() == 12; }));
  EXPECT_EQ(peer.Count(), 12);
}

}  // namespace
