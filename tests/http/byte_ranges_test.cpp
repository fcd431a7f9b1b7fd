#include "http/byte_ranges.h"

#include <gtest/gtest.h>

namespace {

/// "whole", "none", or the parts as "first-last,...".
std::string Read(std::string_view field, std::uint64_t size) {
  const ZrByteRanges ranges = zr::ReadByteRanges(field, size);
  if (ranges.kind == ZrByteRanges::Kind::kWhole) return "whole";
  if (ranges.kind == ZrByteRanges::Kind::kUnsatisfiable) return "none";
  std::string text;
  for (const ZrByteRange& part : ranges.parts) {
    text += std::to_string(part.first) + "-" + std::to_string(part.last) + ",";
  }
  return text;
}

TEST(ByteRanges, FieldsAreReadForABodyOfTenBytes) {
  std::string sixteen = "bytes=0-0";
  for (int i = 1; i < 16; ++i) sixteen += ",20-";
  const struct {
    std::string field;
    const char* result;
  } cases[] = {
      {"bytes=0-4", "0-4,"},
      {"Bytes = 2-", "2-9,"},
      {"bytes=-3", "7-9,"},
      {"bytes=-30", "0-9,"},
      {"bytes=5-99999999999999999999999", "5-9,"},
      {"bytes=9-9", "9-9,"},
      {"bytes=10-", "none"},
      {"bytes=99999999999999999999999-", "none"},
      {"bytes=-0", "none"},
      {"bytes=10-,-0", "none"},
      {"bytes=0-0, 2-3 ,,-1", "0-0,2-3,9-9,"},
      {"bytes=7-,0-1,30-", "7-9,0-1,"},
      {"bytes=0-4,4-8", "0-4,4-8,"},  // overlapping, and as much as the body
      {sixteen, "0-0,"},
  };
  for (const auto& c : cases) EXPECT_EQ(Read(c.field, 10), c.result) << c.field;
  // More than the body, more ranges than 16, and what cannot be read.
  const std::string whole[] = {
      "bytes=0-5,4-8", "bytes=0-,0-", sixteen + ",-1", "bytes=4-3", "bytes=0-4,4-3",
      "bytes=",        "bytes=,",     "bytes=-",       "bytes=--1", "bytes=+1-2",
      "bytes=0x1-2",   "bytes=1 - 2", "bytes 0-4",     "lines=0-4", ""};
  for (const std::string& field : whole) EXPECT_EQ(Read(field, 10), "whole") << field;
  EXPECT_EQ(Read("bytes=0-", 0), "none");
  EXPECT_EQ(Read("bytes=-1", 0), "none");
}

}  // namespace
