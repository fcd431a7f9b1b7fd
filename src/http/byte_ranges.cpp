#include "http/byte_ranges.h"

#include <algorithm>
#include <limits>
#include <optional>

#include "base/number.h"
#include "http/field_list.h"

namespace {

constexpr std::uint64_t kMax = std::numeric_limits<std::uint64_t>::max();

/// Digits of any length; a number that is too large is the largest.
std::optional<std::uint64_t> ReadPlace(std::string_view text) {
  if (text.empty() || text.find_first_not_of("0123456789") != std::string_view::npos) return {};
  return zr::ParseDigits(text).value_or(kMax);
}

enum class Read { kRange, kOutside, kMalformed };

Read ReadRange(std::string_view text, std::uint64_t size, ZrByteRange& range) {
  const std::size_t dash = text.find('-');
  if (dash == std::string_view::npos) return Read::kMalformed;
  const auto first = ReadPlace(text.substr(0, dash));
  const auto last = ReadPlace(text.substr(dash + 1));
  if (dash == 0) {
    // So many bytes at the end.
    if (!last) return Read::kMalformed;
    if (*last == 0 || size == 0) return Read::kOutside;
    range = {size - std::min(*last, size), size - 1};
    return Read::kRange;
  }
  if (!first || (!last && dash + 1 != text.size())) return Read::kMalformed;
  if (last && *last < *first) return Read::kMalformed;
  if (*first >= size) return Read::kOutside;
  range = {*first, std::min(last.value_or(kMax), size - 1)};
  return Read::kRange;
}

}  // namespace

ZrByteRanges zr::ReadByteRanges(std::string_view field, std::uint64_t size) {
  using Kind = ZrByteRanges::Kind;
  const std::size_t equals = field.find('=');
  if (equals == std::string_view::npos ||
      !EqualsIgnoringCase(TrimBlanks(field.substr(0, equals)), "bytes"))
    return {};
  ZrByteRanges ranges{Kind::kParts};
  std::size_t asked = 0;
  std::uint64_t total = 0;
  for (std::string_view rest = field.substr(equals + 1);;) {
    const std::size_t comma = rest.find(',');
    const std::string_view text = TrimBlanks(rest.substr(0, comma));
    if (!text.empty()) {
      ZrByteRange range;
      const Read read = ReadRange(text, size, range);
      if (read == Read::kMalformed || ++asked > kMostRanges) return {};
      if (read == Read::kRange) {
        if (range.Length() > size - total) return {};
        total += range.Length();
        ranges.parts.push_back(range);
      }
    }
    if (comma == std::string_view::npos) break;
    rest.remove_prefix(comma + 1);
  }
  if (asked == 0) return {};
  if (ranges.parts.empty()) ranges.kind = Kind::kUnsatisfiable;
  return ranges;
}

std::string zr::ContentRange(const ZrByteRange& range, std::uint64_t size) {
  return "bytes " + std::to_string(range.first) + "-" + std::to_string(range.last) + "/" +
         std::to_string(size);
}

std::string zr::UnsatisfiedRange(std::uint64_t size) { return "bytes */" + std::to_string(size); }

zr::MultipartRanges zr::MakeMultipartRanges(const std::vector<ZrByteRange>& ranges,
                                            std::uint64_t size, std::string_view contentType,
                                            std::string_view boundary) {
  MultipartRanges body;
  body.contentType.append("multipart/byteranges; boundary=").append(boundary);
  for (const ZrByteRange& range : ranges) {
    std::string head = body.parts.empty() ? "--" : "\r\n--";
    head.append(boundary).append("\r\nContent-Type: ").append(contentType);
    head.append("\r\nContent-Range: ").append(ContentRange(range, size)).append("\r\n\r\n");
    body.length += head.size() + range.Length();
    body.parts.push_back({std::move(head), range});
  }
  body.end.append("\r\n--").append(boundary).append("--\r\n");
  body.length += body.end.size();
  return body;
}
