#include "storage/zrmarkerexpansion.h"

#include <gtest/gtest.h>

#include <map>

namespace {

TEST(MarkerExpansion, ReplacesWhereTheReplacementStarts) {
  const std::map<std::string, std::string, std::less<>> values = {
      {"x", "X"},        {"nested", "<[[x]]>"},  {"open", "[[x"},
      {"half", "[x]]"},  {"both", "[[x]][[x]]"}, {"a[[x", "odd"},
      {"closing", "]]"}, {"empty", ""}};
  struct Case {
    const char* name;
    std::string text;
    std::string expanded;
  };
  const Case cases[] = {
      {"unknown name", "a[[y]]b", "ab"},
      {"no end", "a[[x", "a[[x"},
      {"known name", "a[[x]]b", "aXb"},
      {"inserted markers", "[[nested]][[both]]", "<X>XX"},
      {"a marker that the following text ends", "[[open]]]]!", "X!"},
      {"text before the replacement is done with", "[[[half]]", ""},
      {"the first opening counts", "[[a[[x]]", "odd"},
      {"an inserted end belongs to no marker", "[[closing]]x", "]]x"},
      {"markers side by side", "[[x]][[empty]][[x]]", "XX"},
      {"nothing", "", ""},
      {"empty name", "[[]]", ""},
      {"growing beyond the space in front", "[[nested]] tail", "<X> tail"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::string text = c.text;
    EXPECT_TRUE(zr::ExpandMarkers(text, [&](std::string_view name) {
      const auto found = values.find(name);
      return found == values.end() ? std::string() : found->second;
    }));
    EXPECT_EQ(text, c.expanded);
  }
}

TEST(MarkerExpansion, EndsAtItsBoundsAndKeepsTheRest) {
  std::string endless = "a[[me]]z";
  EXPECT_FALSE(zr::ExpandMarkers(endless, [](std::string_view) { return "b[[me]]"; }));
  EXPECT_EQ(endless, "a" + std::string(zr::kMaxMarkerReplacements, 'b') + "[[me]]" + "z");

  const std::string large(zr::kMaxMarkerBytes / 2 + 1, 'x');
  std::string text = "[[a]]-[[b]]";
  EXPECT_FALSE(zr::ExpandMarkers(text, [&](std::string_view) { return large; }));
  EXPECT_EQ(text, large + "-[[b]]");
}

TEST(MarkerExpansion, ManyMarkersInALongTextAreLinear) {
  std::string text;
  for (std::size_t i = 0; i < zr::kMaxMarkerReplacements; ++i) text += "[[v]]";
  text += std::string(50'000'000, 't');  // moved on every replacement this would take minutes
  EXPECT_TRUE(zr::ExpandMarkers(text, [](std::string_view) { return "longer than the marker"; }));
  EXPECT_EQ(text.size(), 50'000'000 + zr::kMaxMarkerReplacements * 22);
}

}  // namespace
