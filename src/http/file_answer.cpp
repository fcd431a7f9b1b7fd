#include "http/file_answer.h"

#include <algorithm>

#include "http/http_date.h"

namespace {

constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;

std::int64_t SecondsOf(std::int64_t nanoseconds) {
  // Downwards, also before 1970.
  const std::int64_t seconds = nanoseconds / kNanosecondsPerSecond;
  return nanoseconds % kNanosecondsPerSecond < 0 ? seconds - 1 : seconds;
}

ZrByteRanges RangesOf(const ZrHeaderFields& request, const ZrValidators& current,
                      std::uint64_t size, std::int64_t now) {
  // A field given twice has no one meaning.
  const auto field = request["range"];
  if (field.size() != 1 || !zr::RangeCounts(request, current, now)) return {};
  return zr::ReadByteRanges(field.front(), size);
}

}  // namespace

ZrFileAnswer zr::AnswerForFile(const ZrHeaderFields& request, const ZrFileFacts& file,
                               std::int64_t now, std::string_view boundary) {
  const std::uint64_t size = file.version.size;
  // A file from the future was changed now, as far as anybody can tell.
  const std::int64_t modified = std::min(SecondsOf(file.version.modified), now);
  const ZrValidators current{EntityTag(file.version, file.coding), modified};
  ZrFileAnswer answer;
  const auto add = [&answer](std::string_view name, std::string value) {
    answer.fields.emplace_back(name, std::move(value));
  };
  switch (CheckPreconditions(request, true, current)) {
    case ZrPrecondition::kFailed:
      answer.status = 412;
      return answer;
    case ZrPrecondition::kNotModified:
      answer.status = 304;
      break;
    case ZrPrecondition::kHolds:
      break;
  }
  add("ETag", current.entityTag);
  add("Last-Modified", HttpDate(modified));
  if (file.varies) add("Vary", "Accept-Encoding");
  if (answer.status == 304) return answer;
  // Ranges are of the plain bytes: a part of a coding is of little use, and of another version than
  // the client thinks when that was made anew.
  if (file.coding.empty()) add("Accept-Ranges", "bytes");
  const ZrByteRanges ranges =
      file.coding.empty() ? RangesOf(request, current, size, now) : ZrByteRanges{};
  if (ranges.kind == ZrByteRanges::Kind::kUnsatisfiable) {
    answer.status = 416;
    add("Content-Range", UnsatisfiedRange(size));
    return answer;
  }
  if (!file.coding.empty()) add("Content-Encoding", std::string(file.coding));
  if (ranges.parts.size() > 1) {
    answer.status = 206;
    answer.several = MakeMultipartRanges(ranges.parts, size, file.contentType, boundary);
    answer.length = answer.several.length;
    add("Content-Type", answer.several.contentType);
    return answer;
  }
  add("Content-Type", std::string(file.contentType));
  if (ranges.kind == ZrByteRanges::Kind::kParts) {
    answer.status = 206;
    answer.range = ranges.parts.front();
    add("Content-Range", ContentRange(answer.range, size));
    answer.length = answer.range.Length();
    return answer;
  }
  if (size > 0) answer.range = {0, size - 1};
  answer.length = size;
  return answer;
}
