// The pool of one target: ten workers, and requests that wait for one.

#include "servers/request_pool.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/asking_client.h"
#include "tests/support/scripted_peer.h"

using namespace zrtest;

namespace {

// One whose worker drops out goes out once more, before those that wait.
TEST(RequestPool, RequestsBeyondTenWaitForAWorkerAndGoOutInOrder) {
  constexpr int kAll = -1;
  std::atomic<int> released{1000};  // the number of the connection that goes on, or all
  std::mutex lock;
  std::vector<std::string> paths;  // asked for, in order
  ScriptedPeer peer([&](int number, PeerConnection& connection) {
    for (std::string request; !(request = connection.ReadRequest()).empty();) {
      {
        const std::lock_guard hold(lock);
        paths.push_back(request.substr(4, request.find(' ', 4) - 4));
      }
      EXPECT_TRUE(WaitFor([&] { return released == kAll || released == number; }));
      if (number == 5) return;  // without an answer
      connection.Send("HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok");
    }
  });
  const auto askedBehind = [&](std::size_t before, std::size_t count) {
    std::vector<std::string> asked;
    const bool came = WaitFor([&] {
      const std::lock_guard hold(lock);
      asked = paths;
      return asked.size() == before + count;
    });
    if (!came) throw std::runtime_error("not asked");
    return std::vector<std::string>(asked.begin() + static_cast<std::ptrdiff_t>(before),
                                    asked.end());
  };
  // An owner whose callback fails, when it is told of a request that went out, holds nobody up.
  std::atomic<bool> fails{false};
  AskingBed bed(ZrClock::System(), [&fails](ZrServerCallback_t& record) {
    if (fails && record.kind == ZrServerCallback_t::kMessageLogged) throw std::bad_function_call();
    return true;
  });
  std::vector<std::string> names;
  for (int i = 0; i < 13; ++i) {
    const auto head = AskingBed::Request(peer.Port(), "/" + std::to_string(i));
    names.push_back(head->JobName());
    bed.client->SendMessage(head);
  }
  const std::vector<std::string> first = askedBehind(0, 10);
  EXPECT_TRUE(bed.client->Outcomes().empty());
  fails = true;
  released = 5;
  const std::string again = askedBehind(10, 1).front();
  EXPECT_NE(std::find(first.begin(), first.end(), again), first.end()) << again;
  released = 4;  // one worker alone serves those that wait
  EXPECT_EQ(askedBehind(11, 3), (std::vector<std::string>{"/10", "/11", "/12"}));
  released = kAll;
  for (const std::string& name : names) EXPECT_EQ(bed.OutcomeOf(name), "200 ok");
  EXPECT_EQ(peer.Count(), 11);
}

TEST(RequestPool, StartsHoldNothingUpAndTheirFailureIsTold) {
  std::atomic<bool> released{false};
  ScriptedPeer peer([&](int, PeerConnection&) {  // silent in the handshake, then gone
    EXPECT_TRUE(WaitFor([&] { return released.load(); }));
  });
  AskingBed bed;
  const auto send = [&] {
    bed.client->SendMessage(AskingBed::Request(peer.Port(), "/", {}, zr::kProtocolHttps));
  };
  std::vector<std::jthread> senders;
  for (int i = 0; i < 10; ++i) senders.emplace_back(send);
  EXPECT_TRUE(WaitFor([&] { return peer.Count() == 10; }));
  // All places are taken by starts that hang; the pool takes more all the same.
  send();
  send();
  EXPECT_TRUE(bed.client->Outcomes().empty());
  released = true;
  // Those that waited got their own attempts.
  EXPECT_TRUE(WaitFor([&] { return bed.client->Outcomes().size() == 12; }));
  EXPECT_EQ(peer.Count(), 12);
}

}  // namespace
