#include "http/program_answer.h"

#include <algorithm>
#include <iterator>

#include "base/number.h"
#include "http/field_list.h"
#include "http/field_syntax.h"

namespace {

using Read = ZrProgramAnswer::Read;

// What the connection needs is the server's to say, and so is its own name.
constexpr std::string_view kOwn[] = {"connection", "keep-alive", "proxy-connection",  "server",
                                     "te",         "trailer",    "transfer-encoding", "upgrade"};

/// "404" or "404 Not Found"; the phrase is the server's.
bool ReadStatus(std::string_view value, std::uint64_t& status) {
  constexpr std::uint64_t kFirst = 200;
  constexpr std::uint64_t kLast = 599;
  const std::string_view digits = value.substr(0, value.find(' '));
  const auto number = zr::ParseDigits(digits);
  if (digits.size() != 3 || !number || *number < kFirst || *number > kLast) return false;
  status = *number;
  return true;
}

struct Special {
  bool status = false;
  bool contentType = false;
  std::string location;
};

bool TakeField(std::string_view line, ZrProgramAnswer& answer, Special& special) {
  const std::size_t colon = line.find(':');
  if (colon == std::string_view::npos) return false;
  const std::string_view name = line.substr(0, colon);
  const std::string_view value = zr::TrimBlanks(line.substr(colon + 1));
  if (!zr::IsToken(name) || !zr::IsFieldValue(value)) return false;
  const auto is = [name](std::string_view lower) { return zr::EqualsIgnoringCase(name, lower); };
  if (is("status")) {
    special.status = true;
    return ReadStatus(value, answer.status);
  }
  if (is("content-length")) {
    const auto length = zr::ParseDigits(value);
    if (!length || (answer.contentLength && answer.contentLength != length)) return false;
    answer.contentLength = length;
    return true;
  }
  if (std::any_of(std::begin(kOwn), std::end(kOwn), is)) return true;
  if (is("location")) {
    if (!special.location.empty() || value.empty()) return false;
    special.location = value;
  }
  special.contentType = special.contentType || is("content-type");
  answer.fields.emplace_back(name, value);
  return true;
}

Read Finish(ZrProgramAnswer& answer, const Special& special) {
  // Without one of the three it is no head but a page that looks like one.
  if (special.location.empty())
    return special.status || special.contentType ? Read::kComplete : Read::kMalformed;
  if (special.status) return Read::kComplete;
  if (special.location.front() == '/' && !special.location.starts_with("//") &&
      answer.fields.size() == 1) {
    answer.localRedirect = special.location;
    answer.fields.clear();
    return Read::kComplete;
  }
  answer.status = 302;
  return Read::kComplete;
}

}  // namespace

ZrProgramAnswer zr::ReadProgramAnswer(std::string_view output) {
  ZrProgramAnswer answer;
  Special special;
  const std::string_view head = output.substr(0, kMostProgramHead);
  for (std::size_t start = 0;;) {
    const std::size_t end = head.find('\n', start);
    if (end == std::string_view::npos) {
      answer.read = output.size() < kMostProgramHead ? Read::kIncomplete : Read::kMalformed;
      return answer;
    }
    std::string_view line = head.substr(start, end - start);
    if (line.ends_with('\r')) line.remove_suffix(1);
    start = end + 1;
    if (line.empty()) {
      answer.headBytes = start;
      answer.read = Finish(answer, special);
      return answer;
    }
    if (!TakeField(line, answer, special)) {
      answer.read = Read::kMalformed;
      return answer;
    }
  }
}
