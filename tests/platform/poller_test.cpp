#include "platform/poller.h"

#include <gtest/gtest.h>

#include <thread>

using namespace std::chrono_literals;

namespace {

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
