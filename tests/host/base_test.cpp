#include <gtest/gtest.h>

#include <stdexcept>

#include "host/zrnumber.h"
#include "host/zrpath.h"

namespace {

TEST(Base, DirectoryPathsTakeTheStoredForm) {
  struct Case {
    const char* path;
    const char* stored;
  };
  constexpr Case kCases[] = {{"C:/www", "C:\\www\\"}, {"docs\\", "docs\\"}, {"a/b/", "a\\b\\"},
                             {"www", "www\\"},        {"/", "\\"},          {"", ""}};
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.path);
    EXPECT_EQ(zr::NormalizeDirectoryPath(c.path), c.stored);
    EXPECT_EQ(zr::NormalizeDirectoryPath(c.stored), c.stored);
  }
}

TEST(Base, UnsignedNumbersStopAtTheFirstOtherCharacter) {
  EXPECT_EQ(zr::ParseUnsignedLong(" 443x"), 443u);
  EXPECT_EQ(zr::ParseUnsignedLong("4294967295"), 4294967295u);
  EXPECT_EQ(zr::ParseUnsignedLong("-1"), 4294967295u);
  for (const char* text : {"", " ", "x1", "- 1", "+-1"}) {
    SCOPED_TRACE(text);
    try {
      zr::ParseUnsignedLong(text);
      ADD_FAILURE() << "accepted";
    } catch (const std::invalid_argument& e) {
      EXPECT_STREQ(e.what(), "invalid stoul argument");
    }
  }
  try {
    zr::ParseUnsignedLong("4294967296");
    ADD_FAILURE() << "accepted";
  } catch (const std::out_of_range& e) {
    EXPECT_STREQ(e.what(), "stoul argument out of range");
  }
}

TEST(Base, DigitsAreTheWholeText) {
  EXPECT_EQ(zr::ParseDigits("18446744073709551615"), 18446744073709551615ull);
  for (const char* text : {"", "-1", "+1", " 1", "1 ", "18446744073709551616", "0x1"}) {
    EXPECT_FALSE(zr::ParseDigits(text)) << text;
  }
}

}  // namespace
