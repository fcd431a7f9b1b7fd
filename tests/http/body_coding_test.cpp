#include "http/body_coding.h"

#include <gtest/gtest.h>

#include "http/response_head.h"

namespace {

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
