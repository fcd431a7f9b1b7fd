#include "http/preconditions.h"

#include <gtest/gtest.h>

namespace {

constexpr const char* kBefore = "Sun, 06 Nov 1994 08:49:36 GMT";
constexpr const char* kAt = "Sun, 06 Nov 1994 08:49:37 GMT";
constexpr const char* kAfter = "Sun, 06 Nov 1994 08:49:38 GMT";
constexpr std::int64_t kModified = 784111777;

using enum ZrPrecondition;
using Fields = std::vector<std::pair<const char*, const char*>>;

ZrHeaderFields Request(const Fields& fields) {
  ZrHeaderFields request;
  for (const auto& [name, value] : fields) request.Append(name, value);
  return request;
}

TEST(Preconditions, AreEvaluatedInTheirOrder) {
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
  constexpr std::pair<const char*, bool> kCases[] = {
      {"\"tag\"", true}, {"W/\"tag\"", false}, {"\"x\"", false}, {"\"tag\", \"x\"", false},
      {kAt, true},       {kBefore, false},     {kAfter, false},  {"?", false}};
  const auto counts = [](const Fields& fields, std::int64_t now) {
    return zr::RangeCounts(Request(fields), {"\"tag\"", kModified}, now);
  };
  for (const auto& [value, expected] : kCases) {
    EXPECT_EQ(counts({{"if-range", value}}, kModified + 1), expected) << value;
  }
  EXPECT_TRUE(counts({}, kModified));
  // Within the second of its making a date may stand for two versions.
  EXPECT_FALSE(counts({{"if-range", kAt}}, kModified));
}

TEST(Preconditions, TagChangesWithEachPartOfAVersion) {
  const ZrFileVersion version{.size = 10, .modified = 1'000'000'001, .device = 3, .node = 4};
  const std::string tag = zr::EntityTag(version);
  EXPECT_TRUE(tag.size() > 2 && tag.front() == '"' && tag.back() == '"') << tag;
  EXPECT_EQ(zr::EntityTag(version, "br"), tag.substr(0, tag.size() - 1) + "-br\"");
  for (const auto change :
       {+[](ZrFileVersion& v) { ++v.size; }, +[](ZrFileVersion& v) { ++v.modified; },
        +[](ZrFileVersion& v) { ++v.device; }, +[](ZrFileVersion& v) { ++v.node; }}) {
    ZrFileVersion other = version;
    change(other);
    EXPECT_NE(zr::EntityTag(other), tag);
  }
}

}  // namespace
