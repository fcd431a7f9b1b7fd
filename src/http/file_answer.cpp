#include "http/file_answer.h"

#include <algorithm>

#include "http/http_date.h"

namespace {

constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;

constexpr std::size_t kUsualFields = 224;  // what is usually said of a file, in bytes

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

ZrFileHead zr::MakeFileHead(const ZrFileFacts& file, std::int64_t now) {
  // A file from the future was changed now, as far as anybody can tell.
  const std::int64_t modified = std::min(SecondsOf(file.version.modified), now);
  ZrFileHead head{.current = {EntityTag(file.version, file.coding), modified},
                  .size = file.version.size,
                  .contentType = file.contentType,
                  // Parts of a coding are of little use, and of another version than the client
                  // thinks when that was made anew.
                  .ranged = file.coding.empty(),
                  .fields = {}};
  std::string& out = head.fields;
  out.reserve(kUsualFields);
  out.append("ETag: ").append(head.current.entityTag);
  out.append("\r\nLast-Modified: ").append(HttpDate(modified)).append("\r\n");
  if (file.varies) out += "Vary: Accept-Encoding\r\n";
  head.versionFields = out.size();
  if (head.ranged)
    out += "Accept-Ranges: bytes\r\n";
  else
    out.append("Content-Encoding: ").append(file.coding).append("\r\n");
  head.untypedFields = out.size();
  out.append("Content-Type: ").append(file.contentType).append("\r\n");
  return head;
}

ZrFileAnswer zr::AnswerForFile(ZrMethod method, const ZrHeaderFields& request,
                               const ZrFileHead& file, std::int64_t now,
                               std::string_view boundary) {
  ZrFileAnswer answer;
  const bool reads = method == ZrMethod::kGet || method == ZrMethod::kHead;
  switch (CheckPreconditions(request, reads, file.current)) {
    case ZrPrecondition::kFailed:
      answer.status = 412;
      return answer;
    case ZrPrecondition::kNotModified:
      answer.status = 304;
      answer.fields = file.versionFields;
      return answer;
    case ZrPrecondition::kHolds:
      break;
  }
  // Ranges mean something for GET (RFC 9110, 14.2), and HEAD is answered alike.
  const ZrByteRanges ranges =
      file.ranged && reads ? RangesOf(request, file.current, file.size, now) : ZrByteRanges{};
  answer.fields = file.fields.size();
  if (ranges.kind == ZrByteRanges::Kind::kUnsatisfiable) {
    answer.status = 416;
    answer.fields = file.untypedFields;
    answer.more.emplace_back("Content-Range", UnsatisfiedRange(file.size));
    return answer;
  }
  if (ranges.parts.size() > 1) {
    answer.status = 206;
    answer.fields = file.untypedFields;
    answer.several = MakeMultipartRanges(ranges.parts, file.size, file.contentType, boundary);
    answer.length = answer.several.length;
    answer.more.emplace_back("Content-Type", answer.several.contentType);
    return answer;
  }
  if (ranges.kind == ZrByteRanges::Kind::kParts) {
    answer.status = 206;
    answer.range = ranges.parts.front();
    answer.more.emplace_back("Content-Range", ContentRange(answer.range, file.size));
    answer.length = answer.range.Length();
    return answer;
  }
  if (file.size > 0) answer.range = {0, file.size - 1};
  answer.length = file.size;
  return answer;
}
