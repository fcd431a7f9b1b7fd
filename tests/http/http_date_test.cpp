#include "http/http_date.h"

#include <gtest/gtest.h>

#include "platform/clock.h"

TEST(HttpDate, HasThreeForms) {
  constexpr std::int64_t kTime = 784'111'777;
  EXPECT_EQ(zr::HttpDate(kTime), "Sun, 06 Nov 1994 08:49:37 GMT");
  for (const char* text : {"Sun, 06 Nov 1994 08:49:37 GMT", "Sunday, 06-Nov-94 08:49:37 GMT",
                           "Sun Nov  6 08:49:37 1994"}) {
    EXPECT_EQ(zr::ParseHttpDate(text), kTime) << text;
  }
  for (const char* text :
       {"", "Sun, 06 Nov 1994 08:49:37", "Sun, 31 Feb 1994 08:49:37 GMT",
        "Sun, 06 Nov 1994 24:00:00 GMT", "Sun, 6 Nov 1994 08:49:37 GMT", "Nov 6 1994"}) {
    EXPECT_EQ(zr::ParseHttpDate(text), std::nullopt) << text;
  }
  for (const std::int64_t time : {-1L, 0L, 951782400L, 4102444800L})
    EXPECT_EQ(zr::ParseHttpDate(zr::HttpDate(time)), time);
  EXPECT_NEAR(static_cast<double>(zr::ParseHttpDate(zr::HttpDateNow()).value_or(0)),
              static_cast<double>(ZrClock::System().SystemTicks() / 10'000'000), 2);
}
