// The "Range" field: what is answered lies in the body, and several parts never cost more than it.
// The first byte of the input gives the size of the body.

#include "fuzz/check.h"
#include "http/byte_ranges.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::uint64_t bodySize = data[0] == 255 ? ~std::uint64_t{0} : data[0];
  const std::string_view field(reinterpret_cast<const char*>(data) + 1, size - 1);
  const ZrByteRanges ranges = zr::ReadByteRanges(field, bodySize);
  ZR_FUZZ_CHECK(ranges.parts.empty() == (ranges.kind != ZrByteRanges::Kind::kParts));
  ZR_FUZZ_CHECK(ranges.parts.size() <= zr::kMostRanges);
  std::uint64_t total = 0;
  std::string again = "bytes=";
  for (const ZrByteRange& part : ranges.parts) {
    ZR_FUZZ_CHECK(part.first <= part.last && part.last < bodySize);
    ZR_FUZZ_CHECK(part.Length() <= bodySize - total);
    total += part.Length();
    again += std::to_string(part.first) + "-" + std::to_string(part.last) + ",";
  }
  // Written again they mean the same.
  if (!ranges.parts.empty())
    ZR_FUZZ_CHECK(zr::ReadByteRanges(again, bodySize).parts == ranges.parts);
  return 0;
}
