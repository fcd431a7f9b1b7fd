#include "storage/marker_expansion.h"

#include <gtest/gtest.h>

namespace {

// What it replaces is told by the slow and plain way beside it: fuzz/marker_expansion_fuzz.cpp.

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
