#include "jobs/named_id_source.h"

#include <gtest/gtest.h>

#include "tests/support/manual_clock.h"

namespace {

constexpr std::int64_t kExampleTicks = 16'098'048'001'234'567;  // 1609804800.1234567 s

TEST(NamedIdSource, NamesTakeTheNextFreeMicrosecond) {
  zrtest::ManualClock clock(kExampleTicks);
  ZrNamedIdSource source("_job", clock);
  struct Case {
    const char* name;
    std::int64_t ticks;
    const char* expected;
  };
  constexpr Case kCases[] = {
      {"the clock's time", kExampleTicks, "_job*012345601609804800"},
      {"the same microsecond", kExampleTicks + 2, "_job*012345701609804800"},
      {"the clock caught up, but not past", kExampleTicks + 13, "_job*012345801609804800"},
      {"the clock was set back", 0, "_job*012345901609804800"},
      {"the clock went on", kExampleTicks + 100, "_job*012346601609804800"},
      {"the last of a second", 16'098'048'019'999'999, "_job*099999901609804801"},
      {"over the edge of the second", 16'098'048'019'999'999, "_job*000000001609804802"},
  };
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.name);
    clock.SetSystemTicks(c.ticks);
    EXPECT_EQ(source.MakeName(), c.expected);
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
        "_job*100000001609804800"}) {
    EXPECT_FALSE(ZrNamedIdSource::NumberOf("_job", none)) << none;
  }
  // By the microseconds first, as the text has them.
  const std::int64_t early = 1'999'999;
  const std::int64_t late = 2'000'000;
  EXPECT_TRUE(ZrNamedIdSource::NameStandsBefore(late, early));
  EXPECT_EQ(ZrNamedIdSource::NameOf("a", late) < ZrNamedIdSource::NameOf("a", early), true);
}

}  // namespace
