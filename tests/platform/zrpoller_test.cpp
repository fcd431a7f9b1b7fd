#include "platform/zrpoller.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <thread>

using namespace std::chrono_literals;

namespace {

struct Pair {
  Pair() {
    int both[2];
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, both), 0);
    near = ZrDescriptor(both[0]);
    far = ZrDescriptor(both[1]);
  }
  void Arrive() const { EXPECT_EQ(::send(far.Get(), "x", 1, MSG_NOSIGNAL), 1); }
  ZrDescriptor near;
  ZrDescriptor far;
};

TEST(Poller, ReportsWhatIsAskedForUntilItIsHandled) {
  ZrPoller poller;
  Pair pair;
  ASSERT_TRUE(poller.Add(pair.near.Get(), 7, ZrInterest::kRead));
  EXPECT_FALSE(poller.Add(pair.near.Get(), 8, ZrInterest::kRead));
  EXPECT_TRUE(poller.Wait(0ns).empty());
  pair.Arrive();
  for (int round = 0; round < 2; ++round) {
    const auto ready = poller.Wait(10s);
    ASSERT_EQ(ready.size(), 1U);
    EXPECT_EQ(ready[0].token, 7U);
    EXPECT_TRUE(ready[0].readable && !ready[0].writable && !ready[0].hangup);
  }
  ASSERT_TRUE(poller.Change(pair.near.Get(), 9, ZrInterest::kWrite));
  const auto writable = poller.Wait(10s);
  ASSERT_EQ(writable.size(), 1U);
  EXPECT_TRUE(writable[0].token == 9 && writable[0].writable && !writable[0].readable);

  ASSERT_TRUE(poller.Change(pair.near.Get(), 9, ZrInterest::kNone));
  EXPECT_TRUE(poller.Wait(0ns).empty());
  pair.far.Close();
  const auto hangup = poller.Wait(10s);
  EXPECT_TRUE(hangup.size() == 1 && hangup[0].hangup);
  poller.Remove(pair.near.Get());
  EXPECT_TRUE(poller.Wait(0ns).empty());
}

TEST(Poller, AWakeUpIsNeverLost) {
  ZrPoller poller;
  poller.Wake();
  poller.Wake();
  EXPECT_TRUE(poller.Wait(60s).empty());
  EXPECT_TRUE(poller.Wait(0ns).empty());

  // Each round the woken thread must see what was written before the wake-up.
  constexpr int kRounds = 2000;
  std::atomic<int> value{0};
  std::atomic<int> answered{0};
  std::jthread waker([&] {
    for (int i = 1; i <= kRounds; ++i) {
      value.store(i, std::memory_order_relaxed);
      poller.Wake();
      while (answered.load() < i) std::this_thread::yield();
    }
  });
  while (answered < kRounds) {
    poller.Wait(60s);
    answered = value.load(std::memory_order_relaxed);
  }
}

}  // namespace
