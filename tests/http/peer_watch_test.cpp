#include "http/peer_watch.h"

#include <gtest/gtest.h>

#include <thread>

namespace {

TEST(PeerWatch, EachActionIsCalledOnceWhateverItDoesItself) {
  const auto watch = std::make_shared<ZrPeerWatch>();
  std::vector<int> called;
  ZrPeerWatch::Token third = 0;
  const auto owned = std::make_shared<int>(0);
  auto first = std::make_unique<ZrPeerSubscription>();
  *first = ZrPeerSubscription(watch, [&, owned] {
    called.push_back(1);
    first.reset();              // its own
    watch->Unsubscribe(third);  // another's, which is then not called
    EXPECT_EQ(watch->Subscribe([] { FAIL(); }), 0U);
    watch->MarkGone();
  });
  EXPECT_NE(watch->Subscribe([&, owned] { called.push_back(2); }), 0U);
  third = watch->Subscribe([&, owned] { called.push_back(3); });
  ZrPeerSubscription taken(watch, [&] { called.push_back(4); });
  taken = ZrPeerSubscription();
  const ZrPeerSubscription ends(
      watch, [&] { called.push_back(5); }, ZrPeerWatch::State::kEnded);
  EXPECT_FALSE(ends.Ended());
  watch->MarkEnded();
  watch->MarkEnded();
  EXPECT_TRUE(ends.Ended());
  EXPECT_FALSE(watch->Gone());
  EXPECT_EQ(watch->Subscribe([] { FAIL(); }, ZrPeerWatch::State::kEnded), 0U);
  EXPECT_EQ(called, (std::vector<int>{5}));
  watch->MarkGone();
  watch->MarkEnded();
  EXPECT_TRUE(watch->Gone());
  EXPECT_EQ(called, (std::vector<int>{5, 1, 2}));
  EXPECT_EQ(owned.use_count(), 1);
  EXPECT_FALSE(ZrPeerSubscription(nullptr, [] { FAIL(); }).Gone());
}

TEST(PeerWatch, NoSubscriptionIsMissedByThreadsAtTheSameTime) {
  for (int round = 0; round < 300; ++round) {
    const auto watch = std::make_shared<ZrPeerWatch>();
    std::atomic<int> told = 0;
    const auto subscribe = [&] {
      // Told by the action, or by having come too late.
      const auto token = watch->Subscribe([&told] { ++told; });
      if (token == 0) ++told;
      watch->Unsubscribe(watch->Subscribe([] {}));
    };
    std::thread one(subscribe);
    std::thread two(subscribe);
    watch->MarkGone();
    one.join();
    two.join();
    EXPECT_EQ(told, 2);
  }
}

}  // namespace
