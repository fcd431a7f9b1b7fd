#include "handlers/compression.h"

#include <gtest/gtest.h>

#include <atomic>
#include <semaphore>

#include "tests/support/temporary_folder.h"
#include "tests/support/wait.h"

namespace {

using namespace zrtest;

TEST(Compression, IsMadeOnceForAVersionWhoeverWaitsForIt) {
  const TemporaryFolder folder;
  ZrRinvalScheduler2 scheduler;
  ZrCompression compression(scheduler, 1);
  const auto open = [&](const std::string& name, const std::string& text) {
    return ZrFile::Open(folder.Write(name, text));
  };
  // Nothing begins before all have asked: the only thread is held up by another body.
  std::counting_semaphore<> go(0);
  ASSERT_TRUE(compression.OfBody("text", ZrCoding::kGzip, nullptr, [&](ZrCompression::Bytes bytes) {
    EXPECT_EQ(bytes, nullptr);  // it would be longer
    EXPECT_TRUE(go.try_acquire_for(std::chrono::seconds(20)));
  }));
  const auto file = open("a", std::string(100'000, 'a'));
  std::vector<ZrCompression::Bytes> got(4);
  std::atomic<int> done = 0;
  for (std::size_t i = 0; i < got.size(); ++i) {
    ASSERT_TRUE(compression.OfFile(file, i < 3 ? ZrCoding::kGzip : ZrCoding::kBrotli,
                                   [&, i](ZrCompression::Bytes bytes) {
                                     got[i] = std::move(bytes);
                                     ++done;
                                   }));
  }
  EXPECT_EQ(done, 0);
  go.release();
  ASSERT_TRUE(WaitFor([&] { return done == 4; }));
  ASSERT_TRUE(got[0] && got[3]);
  EXPECT_LT(got[0]->size(), 1000u);
  EXPECT_EQ(got[0], got[1]);
  EXPECT_EQ(got[0], got[2]);
  EXPECT_NE(got[0], got[3]);
  // At hand from now on, for this version only.
  ASSERT_TRUE(compression.OfFile(file, ZrCoding::kGzip, [&](ZrCompression::Bytes bytes) {
    EXPECT_EQ(bytes, got[0]);
    ++done;
  }));
  EXPECT_EQ(done, 5);
  const auto changed = open("a", std::string(100'001, 'a'));
  ASSERT_TRUE(compression.OfFile(changed, ZrCoding::kGzip, [&](ZrCompression::Bytes bytes) {
    EXPECT_NE(bytes, got[0]);
    ++done;
  }));
  ASSERT_TRUE(WaitFor([&] { return done == 6; }));
  // After the stop everything is sent as it is.
  compression.Stop();
  ASSERT_TRUE(
      compression.OfFile(open("b", std::string(5000, 'b')), ZrCoding::kGzip,
                         [&](const ZrCompression::Bytes& bytes) { done += bytes ? 9 : 1; }));
  EXPECT_TRUE(WaitFor([&] { return done == 7; }));
}

TEST(Compression, TakesOnlySoManyAtOnce) {
  ZrRinvalScheduler2 scheduler;
  ZrCompression compression(scheduler, 1);
  std::counting_semaphore<> go(0);
  const std::string text(5000, 't');
  std::atomic<std::size_t> done = 0;
  const auto ask = [&](const ZrCompression::Done& then) {
    return compression.OfBody(text, ZrCoding::kBrotli, nullptr, then);
  };
  std::size_t taken = 0;
  while (ask([&](const ZrCompression::Bytes&) {
    EXPECT_TRUE(go.try_acquire_for(std::chrono::seconds(20)));
    ++done;
  }))
    ASSERT_LE(++taken, ZrCompression::kMostWaiting);
  EXPECT_EQ(taken, ZrCompression::kMostWaiting);
  go.release(static_cast<std::ptrdiff_t>(taken));
  EXPECT_TRUE(WaitFor([&] { return done == taken; }));
  EXPECT_TRUE(WaitFor([&] { return ask([&](const ZrCompression::Bytes&) { ++done; }); }));
  EXPECT_TRUE(WaitFor([&] { return done > taken; }));
}

}  // namespace
