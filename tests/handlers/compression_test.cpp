#include "handlers/compression.h"

#include <gtest/gtest.h>

#include <atomic>
#include <semaphore>

#include "http/body_coding.h"
#include "http/response_head.h"
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

TEST(BodyCoding, FollowsTheRequestTheTypeAndTheAnswer) {
  struct Case {
    const char* name;
    const char* accepts;
    const char* type;
    std::optional<std::uint64_t> size;
    std::pair<const char*, const char*> field;
    ZrCoding coding;
    bool varies;
  };
  constexpr ZrCoding kPlain = ZrCoding::kIdentity;
  const Case cases[] = {
      {"JSON", "gzip", "Application/JSON", 5000, {}, ZrCoding::kGzip, true},
      {"no type", "*", "", 1024, {"etag", "\"x\""}, ZrCoding::kBrotli, true},
      {"small", "gzip", "text/css", 1023, {}, kPlain, false},
      {"huge", "gzip", "text/css", zr::kMostCompressed + 1, {}, kPlain, false},
      {"picture", "gzip", "image/png", 5000, {}, kPlain, false},
      {"events", "gzip", "text/event-stream", {}, {}, kPlain, false},
      {"coded", "gzip", "text/css", 5000, {"content-encoding", "br"}, kPlain, false},
      {"as it is", "gzip", "text/css", 5000, {"cache-control", "a, No-Transform"}, kPlain, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const auto request =
        zr::MakeJob<ZrXHeader>(ZrMessageType::kPost, std::uint32_t{zr::kProtocolHttp});
    request->semantics = &ZrSemantics::Standard();
    request->headers.Append("accept-encoding", c.accepts);
    const auto answer = request->MakeResponse();
    answer->SetStatus(200);
    if (*c.type) answer->SetField("content-type", c.type);
    if (c.field.first) answer->SetField(c.field.first, c.field.second);
    EXPECT_EQ(zr::ChooseBodyCoding(*request, *answer, c.size), c.coding);
    EXPECT_EQ(answer->headers.contains("vary"), c.varies);
    if (c.coding == kPlain) continue;
    zr::SetBodyCoding(*answer, c.coding);
    EXPECT_EQ(answer->headers.First("content-encoding"), zr::CodingName(c.coding));
    EXPECT_EQ(answer->headers.First("etag"), c.field.first ? "\"x-br\"" : "");
  }
}

}  // namespace
