#include "jobs/named_id_source.h"

#include <gtest/gtest.h>

#include <utility>

#include "tests/support/manual_clock.h"

namespace {

constexpr std::int64_t kExampleTicks = 16'098'048'001'234'567;  // 1609804800.1234567 s

TEST(NamedIdSource, NamesTakeTheNextFreeMicrosecond) {
  zrtest::ManualClock clock(kExampleTicks);
  ZrNamedIdSource source("_job", clock);
  constexpr std::pair<std::int64_t, const char*> kTimes[] = {
      {kExampleTicks, "_job*012345601609804800"},
      {kExampleTicks + 2, "_job*012345701609804800"},   // the same microsecond
      {kExampleTicks + 13, "_job*012345801609804800"},  // not past what was given out
      {0, "_job*012345901609804800"},                   // set back
      {kExampleTicks + 100, "_job*012346601609804800"},
      {16'098'048'019'999'999, "_job*099999901609804801"},
      {16'098'048'019'999'999, "_job*000000001609804802"},  // over the edge of the second
  };
  for (const auto& [ticks, name] : kTimes) {
    clock.SetSystemTicks(ticks);
    EXPECT_EQ(source.MakeName(), name) << ticks;
  }
  EXPECT_EQ(source.MakeName("other"), "other*000000101609804802");
}

TEST(NamedIdSource, ANameIsANumberInWriting) {
  ZrNamedIdSource source("_job");
  const std::int64_t number = source.MakeNumber();
  EXPECT_EQ(ZrNamedIdSource::NumberOf("_job", ZrNamedIdSource::NameOf("_job", number)), number);
  EXPECT_EQ(ZrNamedIdSource::NumberOf("_job", "_job*012345601609804800"), 1609804800123456);
  for (const char* none :
       {"", "_job", "_job*01234560160980480", "_job*0123456016098048000", "_jo*0012345601609804800",
        "other*12345601609804800", "_job+012345601609804800", "_job*-12345601609804800",
        "_job*100000001609804800"})
    EXPECT_FALSE(ZrNamedIdSource::NumberOf("_job", none)) << none;
  // By the microseconds first, as the text has them.
  const std::int64_t early = 1'999'999;
  const std::int64_t late = 2'000'000;
  EXPECT_TRUE(ZrNamedIdSource::NameStandsBefore(late, early));
  EXPECT_LT(ZrNamedIdSource::NameOf("a", late), ZrNamedIdSource::NameOf("a", early));
}

}  // namespace
