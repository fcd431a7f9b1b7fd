#include <gtest/gtest.h>

#include <stdexcept>
#include <thread>

#include "base/number.h"
#include "base/path.h"
#include "base/workbench.h"

namespace {

TEST(Base, DirectoryPathsTakeTheStoredForm) {
  constexpr std::pair<const char*, const char*> kCases[] = {
      {"C:/www", "C:\\www\\"}, {"docs\\", "docs\\"}, {"a/b/", "a\\b\\"}, {"/", "\\"}, {"", ""}};
  for (const auto& [path, stored] : kCases) {
    EXPECT_EQ(zr::NormalizeDirectoryPath(path), stored);
    EXPECT_EQ(zr::NormalizeDirectoryPath(stored), stored);
  }
}

TEST(Base, UnsignedNumbersStopAtTheFirstOtherCharacter) {
  EXPECT_EQ(zr::ParseUnsignedLong(" 443x"), 443u);
  EXPECT_EQ(zr::ParseUnsignedLong("-1"), 4294967295u);
  for (const char* text : {"", " ", "x1", "- 1", "+-1", "4294967296"}) {
    std::string said;
    try {
      zr::ParseUnsignedLong(text);
    } catch (const std::logic_error& e) {
      said = e.what();
    }
    EXPECT_EQ(said, *text == '4' ? "stoul argument out of range" : "invalid stoul argument");
  }
}

TEST(Base, DigitsAreTheWholeText) {
  EXPECT_EQ(zr::ParseDigits("18446744073709551615"), 18446744073709551615ull);
  for (const char* text : {"", "-1", "+1", " 1", "1 ", "18446744073709551616", "0x1"}) {
    EXPECT_FALSE(zr::ParseDigits(text)) << text;
  }
}

// Blocks may be released on other threads, and outlive the workbench that gave them.
TEST(Base, AWorkbenchGivesBlocksAgainAndEndsWithItsThread) {
  using Text = std::basic_string<char, std::char_traits<char>, ZrWorkbenchAllocator<char>>;
  std::vector<Text> kept;
  std::thread([&kept] {
    ZrWorkbench bench;
    EXPECT_EQ(ZrWorkbench::Current(), &bench);
    for (int round = 0; round < 3; ++round)
      for (const std::size_t size : {16u, 64u, 65u, 2047u, 2048u, 5000u}) {
        std::vector<Text> texts(20, Text(size, 'x'));
        kept.push_back(std::move(texts.back()));
      }
    ++bench.Of<int>();
    EXPECT_EQ(++bench.Of<int>(), 2);
  }).join();
  EXPECT_EQ(ZrWorkbench::Current(), nullptr);
  const ZrWorkbench other;
  for (const Text& text : kept) EXPECT_EQ(text.find_first_not_of('x'), Text::npos);
  kept.clear();
}

}  // namespace
