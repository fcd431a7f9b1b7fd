#include "handlers/cgi_runs.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <semaphore>
#include <stdexcept>

#include "tests/support/wait.h"

namespace {

using std::chrono::seconds;

TEST(CgiRuns, NoMoreThanAllowedHappenAtOnceAndTheOthersKeepTheirOrder) {
  ZrRinvalScheduler2 scheduler;
  ZrCgiRuns runs(scheduler, 3);
  std::counting_semaphore<> mayEnd(0);
  std::atomic<int> happening = 0;
  std::vector<int> order(12);
  std::atomic<std::size_t> begun = 0;
  for (int i = 0; i < 12; ++i) {
    runs.Submit([&, i](const ZrWakeFlag&) {
      EXPECT_LE(++happening, 3);
      order.at(begun++) = i;
      EXPECT_TRUE(mayEnd.try_acquire_for(seconds(20)));
      --happening;
      if (i == 5) throw std::runtime_error("costs nobody else's turn");
    });
  }
  // One after the other: each end lets exactly the next one in.
  for (std::size_t ended = 0; ended <= 12; ++ended) {
    EXPECT_TRUE(zrtest::WaitFor([&] { return begun == std::min<std::size_t>(12, 3 + ended); }));
    mayEnd.release();
  }
  EXPECT_TRUE(zrtest::WaitFor([&] { return happening == 0; }));
  EXPECT_TRUE(std::is_sorted(order.begin() + 3, order.end()));
}

TEST(CgiRuns, RunsWhosePeerHasGoneAreDroppedWithWhatTheyHold) {
  ZrRinvalScheduler2 scheduler;
  ZrCgiRuns runs(scheduler, 1);
  std::counting_semaphore<> mayEnd(0);
  runs.Submit([&](const ZrWakeFlag&) { EXPECT_TRUE(mayEnd.try_acquire_for(seconds(20))); });
  const auto held = std::make_shared<int>(0);
  std::vector<std::shared_ptr<ZrPeerWatch>> peers;
  std::vector<std::size_t> order;
  for (std::size_t i = 0; i < 6; ++i) {
    peers.push_back(std::make_shared<ZrPeerWatch>());
    if (i == 5) peers[5]->MarkGone();
    runs.Submit([&order, held, i](const ZrWakeFlag&) { order.push_back(i); }, peers[i]);
  }
  EXPECT_EQ(held.use_count(), 6);
  for (const std::size_t gone : {0U, 3U}) peers[gone]->MarkGone();
  EXPECT_EQ(held.use_count(), 4);
  mayEnd.release();
  EXPECT_TRUE(zrtest::WaitFor([&] { return held.use_count() == 1; }));
  runs.Stop();
  EXPECT_EQ(order, (std::vector<std::size_t>{1, 2, 4}));
  for (const auto& peer : peers) peer->MarkGone();  // nobody is told any more
}

TEST(CgiRuns, StopReachesRunsThatHappenThatWaitAndThatComeLater) {
  ZrRinvalScheduler2 scheduler;
  ZrCgiRuns runs(scheduler, 2);
  std::atomic<int> begun = 0;
  std::atomic<int> raised = 0;
  const auto run = [&](const ZrWakeFlag& stop) {
    ++begun;
    zr::PollItem item{stop.Descriptor()};
    EXPECT_TRUE(zr::PollDescriptors({&item, 1}, std::chrono::steady_clock::now() + seconds(20)));
    raised += stop.IsRaised() ? 1 : 0;
  };
  for (int i = 0; i < 10; ++i) runs.Submit(run);
  EXPECT_TRUE(zrtest::WaitFor([&] { return begun == 2; }));
  runs.Stop();
  EXPECT_EQ(raised, 10);
  scheduler.Stop();  // no task runs from here on: the caller's thread answers
  runs.Submit(run);
  runs.Stop();
  EXPECT_EQ(raised, 11);
}

}  // namespace
