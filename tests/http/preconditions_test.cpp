#include "http/preconditions.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace {

constexpr const char* kBefore = "Sun, 06 Nov 1994 08:49:36 GMT";
constexpr const char* kAt = "Sun, 06 Nov 1994 08:49:37 GMT";
constexpr const char* kAfter = "Sun, 06 Nov 1994 08:49:38 GMT";
constexpr std::int64_t kModified = 784111777;

using Fields = std::vector<std::pair<const char*, const char*>>;

ZrHeaderFields Request(const Fields& fields) {
  ZrHeaderFields request;
  for (const auto& [name, value] : fields) request.Append(name, value);
  return request;
}

TEST(Preconditions, AreEvaluatedInTheirOrder) {
  constexpr auto kHolds = ZrPrecondition::kHolds;
  constexpr auto kNotModified = ZrPrecondition::kNotModified;
  constexpr auto kFailed = ZrPrecondition::kFailed;
  const ZrValidators current{"\"a,b\"", kModified};
  const struct {
    Fields fields;
    ZrPrecondition reading;
    ZrPrecondition writing;
  } cases[] = {
      {{}, kHolds, kHolds},
      {{{"if-none-match", "\"a,b\""}}, kNotModified, kFailed},
      {{{"if-none-match", "W/\"a,b\""}}, kNotModified, kFailed},
      {{{"if-none-match", "\"x\", \"y,\" , W/\"z\",\"a,b\""}}, kNotModified, kFailed},
      {{{"if-none-match", "\"x\""}, {"if-none-match", "\"a,b\""}}, kNotModified, kFailed},
      {{{"if-none-match", " * "}}, kNotModified, kFailed},
      {{{"if-none-match", "\"a\", b"}}, kHolds, kHolds},
      {{{"if-none-match", "a,b"}}, kHolds, kHolds},
      {{{"if-none-match", "\"a,b"}}, kHolds, kHolds},
      {{{"if-none-match", "\"x\""}, {"if-modified-since", kAt}}, kHolds, kHolds},
      {{{"if-modified-since", kAt}}, kNotModified, kHolds},
      {{{"if-modified-since", kAfter}}, kNotModified, kHolds},
      {{{"if-modified-since", kBefore}}, kHolds, kHolds},
      {{{"if-modified-since", "yesterday"}}, kHolds, kHolds},
      {{{"if-modified-since", kAt}, {"if-modified-since", kAt}}, kHolds, kHolds},
      {{{"if-match", "\"a,b\""}}, kHolds, kHolds},
      {{{"if-match", "W/\"a,b\""}}, kFailed, kFailed},
      {{{"if-match", "\"x\""}}, kFailed, kFailed},
      {{{"if-match", "*"}}, kHolds, kHolds},
      {{{"if-match", "\"a,b\""}, {"if-unmodified-since", kBefore}}, kHolds, kHolds},
      {{{"if-match", "\"a,b\""}, {"if-none-match", "\"a,b\""}}, kNotModified, kFailed},
      {{{"if-match", "\"x\""}, {"if-none-match", "\"a,b\""}}, kFailed, kFailed},
      {{{"if-unmodified-since", kAt}}, kHolds, kHolds},
      {{{"if-unmodified-since", kBefore}}, kFailed, kFailed},
      {{{"if-unmodified-since", "?"}}, kHolds, kHolds},
      {{{"if-unmodified-since", kAt}, {"if-modified-since", kAt}}, kNotModified, kHolds},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.fields.empty() ? "none"
                                  : std::string(c.fields[0].first) + ": " + c.fields[0].second);
    EXPECT_EQ(zr::CheckPreconditions(Request(c.fields), true, current), c.reading);
    EXPECT_EQ(zr::CheckPreconditions(Request(c.fields), false, current), c.writing);
  }
  // What has no version cannot be the one that is meant.
  EXPECT_EQ(zr::CheckPreconditions(Request({{"if-match", "*"}}), true, {}), kFailed);
  EXPECT_EQ(zr::CheckPreconditions(Request({{"if-modified-since", kAt}}), true, {}), kHolds);
}

TEST(Preconditions, RangeCountsForTheVersionItWasMadeFor) {
  const ZrValidators current{"\"tag\"", kModified};
  const struct {
    const char* value;
    bool counts;
  } cases[] = {{"\"tag\"", true}, {"W/\"tag\"", false}, {"\"x\"", false}, {"\"tag\", \"x\"", false},
               {kAt, true},       {kBefore, false},     {kAfter, false},  {"?", false}};
  for (const auto& c : cases) {
    EXPECT_EQ(zr::RangeCounts(Request({{"if-range", c.value}}), current, kModified + 1), c.counts)
        << c.value;
  }
  EXPECT_TRUE(zr::RangeCounts({}, current, kModified));
  // Within the second of its making a date may stand for two versions.
  EXPECT_FALSE(zr::RangeCounts(Request({{"if-range", kAt}}), current, kModified));
}

TEST(Preconditions, TagChangesWithEachPartOfAVersion) {
  const ZrFileVersion version{.size = 10, .modified = 1'000'000'001, .device = 3, .node = 4};
  std::vector<ZrFileVersion> others(4, version);
  ++others[0].size;
  ++others[1].modified;
  ++others[2].device;
  ++others[3].node;
  const std::string tag = zr::EntityTag(version);
  EXPECT_EQ(tag, zr::EntityTag(version));
  EXPECT_TRUE(tag.size() > 2 && tag.front() == '"' && tag.back() == '"') << tag;
  for (const ZrFileVersion& other : others) EXPECT_NE(zr::EntityTag(other), tag);
  EXPECT_EQ(zr::EntityTag(version, "br"), tag.substr(0, tag.size() - 1) + "-br\"");
}

}  // namespace
