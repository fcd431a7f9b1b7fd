#include "http/preferences.h"

#include <gtest/gtest.h>

namespace {

ZrHeaderFields Fields(std::initializer_list<std::string_view> values) {
  ZrHeaderFields fields;
  for (const std::string_view value : values) fields.Append("f", value);
  return fields;
}

TEST(Preferences, CodingIsChosenByWeightAndRank) {
  const struct {
    std::initializer_list<std::string_view> values;
    const char* ofBoth;
    const char* ofGzip;
  } cases[] = {
      {{}, "", ""},
      {{"gzip, deflate, br"}, "br", "gzip"},
      {{"gzip", "br"}, "br", "gzip"},
      {{"X-GZIP"}, "gzip", "gzip"},
      {{"br;q=0.5, gzip;q=0.501"}, "gzip", "gzip"},
      {{"br ; Q=0.5 , gzip ; q=0.5"}, "br", "gzip"},
      {{"*"}, "br", "gzip"},
      {{"br;q=0, *"}, "gzip", "gzip"},
      {{"gzip;q=0"}, "", ""},
      {{"*;q=0, gzip"}, "gzip", "gzip"},
      {{"identity, gzip;q=0.9"}, "", ""},
      {{"identity;q=0.5, gzip;q=0.5"}, "gzip", "gzip"},
      {{"identity;q=0, *;q=0"}, "", ""},         // nothing is left: the plain body
      {{"gzip;q=2, br;q=0.1234, br2"}, "", ""},  // none of them can be read
      {{"gzip;q=, br;q=-1"}, "", ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.values.size() == 0 ? "none" : *c.values.begin());
    const ZrHeaderFields fields = Fields(c.values);
    const auto chosen = [&](ZrCodingOffer offer) {
      return zr::CodingName(zr::ChooseCoding(fields["f"], offer));
    };
    EXPECT_EQ(chosen({.gzip = true, .brotli = true}), c.ofBoth);
    EXPECT_EQ(chosen({.gzip = true}), c.ofGzip);
  }
}

TEST(Preferences, WeightsAreReadAsTheyAreWritten) {
  constexpr std::pair<std::string_view, int> kCases[] = {
      {"0", 0},     {"1", 1000},   {"0.", 0},  {"1.000", 1000}, {"0.5", 500}, {"0.123", 123},
      {"0.001", 1}, {"1.001", -1}, {"2", -1},  {"0.1234", -1},  {".5", -1},   {"0,5", -1},
      {"", -1},     {"0.5 ", -1},  {"-0", -1}, {"0.5.5", -1},   {"01", -1}};
  for (const auto& [text, weight] : kCases) EXPECT_EQ(zr::ReadWeight(text), weight) << text;
}

TEST(Preferences, TheMostExactRangeOfMediaCounts) {
  const struct {
    const char* accept;
    int html;
    bool json;
  } cases[] = {
      {"*/*", 1000, false},
      {"text/html,application/xml;q=0.9,*/*;q=0.8", 1000, false},
      {"application/json", 0, true},
      {"application/problem+json", 0, true},
      {"application/json, */*;q=0.1", 100, true},
      {"text/*;q=0.5, text/html;q=0.7, */*", 700, true},
      {"Text/HTML;level=1;q=0.4, application/json;q=0.4", 400, false},
      {"text/html;q=0, */*", 0, true},
      {"text/html;q=x", 0, false},
  };
  for (const auto& c : cases) {
    const ZrHeaderFields fields = Fields({c.accept});
    EXPECT_EQ(zr::MediaWeight(fields["f"], "text/html"), c.html) << c.accept;
    EXPECT_EQ(zr::PrefersJson(fields["f"]), c.json) << c.accept;
  }
  EXPECT_EQ(zr::MediaWeight({}, "text/html"), 1000);
  EXPECT_FALSE(zr::PrefersJson({}));
}

}  // namespace
