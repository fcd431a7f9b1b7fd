#include "platform/zrpoller.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <thread>

#include "platform/zrsystem.h"

using namespace std::chrono_literals;

namespace {

struct Pair {
  Pair() {
    int both[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, both) != 0) return;
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
  ASSERT_EQ(poller.Wait(10s).size(), 1U);
  EXPECT_EQ(poller.Wait(10s)[0].token, 9U);
  EXPECT_TRUE(poller.Wait(10s)[0].writable && !poller.Wait(10s)[0].readable);

  ASSERT_TRUE(poller.Change(pair.near.Get(), 9, ZrInterest::kNone));
  EXPECT_TRUE(poller.Wait(0ns).empty());
  pair.far.Close();
  ASSERT_EQ(poller.Wait(10s).size(), 1U);
  EXPECT_TRUE(poller.Wait(10s)[0].hangup);
  poller.Remove(pair.near.Get());
  EXPECT_TRUE(poller.Wait(0ns).empty());
  EXPECT_FALSE(poller.Change(pair.near.Get(), 9, ZrInterest::kRead));
}

TEST(Poller, ServesManyMoreThanAThousandInTurn) {
  constexpr std::size_t kPairs = 700;  // 1,400 descriptors
  if (zr::RaiseDescriptorLimit() < 2 * kPairs + 64) {
    FAIL() << "this machine allows too few descriptors: raise its hard limit";
  }
  ZrPoller poller;
  std::vector<Pair> pairs(kPairs);
  for (std::size_t i = 0; i < kPairs; ++i) {
    ASSERT_TRUE(poller.Add(pairs[i].near.Get(), i, ZrInterest::kRead));
    pairs[i].Arrive();
  }
  // Nothing is handled; still each gets its turn before any pair could keep the others out.
  std::vector<bool> seen(kPairs);
  for (int pass = 0; pass < 4; ++pass) {
    for (const ZrReadiness& ready : poller.Wait(10s)) seen.at(ready.token) = true;
  }
  EXPECT_EQ(std::count(seen.begin(), seen.end(), true), static_cast<long>(kPairs));
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

TEST(Poller, WaitsAboutAsLongAsItIsTold) {
  ZrPoller poller;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(poller.Wait(1500us).empty());
  EXPECT_GE(std::chrono::steady_clock::now() - start, 1500us);
}

}  // namespace
