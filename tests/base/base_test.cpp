#include <gtest/gtest.h>

#include <stdexcept>
#include <thread>

#include "base/number.h"
#include "base/path.h"
#include "base/printable.h"
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

// Of eight bytes that are taken at once, each counts, and none beyond the text.
TEST(Base, EveryByteOfATextIsLookedAt) {
  for (std::size_t size = 0; size <= 20; ++size) {
    std::string text;
    for (int byte = 0; byte < 256; ++byte) {
      for (std::size_t at = 0; at < size; ++at) {
        text.assign(size, '\xff').append(1, '\n');
        text[at] = static_cast<char>(byte);
        const std::string_view seen(text.data(), size);
        const bool plain = byte >= 0x20 && byte != 0x7f;
        ASSERT_EQ(zr::IsPrintable(seen), plain) << size << " " << at << " " << byte;
        std::string line;
        zr::AppendPrintable(line, seen);
        ASSERT_EQ(line.size(), plain ? size : size + 3);
      }
    }
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
