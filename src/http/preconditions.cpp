#include "http/preconditions.h"

#include <algorithm>
#include <charconv>

#include "http/field_list.h"
#include "http/http_date.h"

namespace {

// Mixes so that each bit of the input can change each bit of the result.
constexpr std::uint64_t Mix(std::uint64_t value) {
  value = (value ^ (value >> 33)) * 0xff51afd7ed558ccdU;
  value = (value ^ (value >> 33)) * 0xc4ceb9fe1a85ec53U;
  return value ^ (value >> 33);
}

void AppendHex(std::string& out, std::uint64_t number) {
  char digits[16];
  const auto result = std::to_chars(digits, digits + sizeof digits, number, 16);
  out.append(digits, result.ptr);
}

/// Takes one tag off the front of a list; nothing at the end or when the list is malformed. `weak`
/// says whether it was.
std::optional<std::string_view> TakeTag(std::string_view& list, bool& weak) {
  list.remove_prefix(std::min(list.find_first_not_of(" \t,"), list.size()));
  weak = list.starts_with("W/");
  if (weak) list.remove_prefix(2);
  if (!list.starts_with('"')) return std::nullopt;
  const std::size_t end = list.find('"', 1);
  if (end == std::string_view::npos) return std::nullopt;
  const std::string_view tag = list.substr(0, end + 1);
  list.remove_prefix(end + 1);
  return tag;
}

/// Whether a list of tags names the current one. "*" names any that there is.
bool NamesTag(const ZrHeaderFields::Values& values, std::string_view current, bool strongly) {
  for (std::string_view list : values) {
    if (list == current && !current.empty()) return true;  // as nearly all clients send it
    if (zr::TrimBlanks(list) == "*") return !current.empty();
    bool weak = false;
    while (const auto tag = TakeTag(list, weak))
      if (*tag == current && !(strongly && weak)) return true;
  }
  return false;
}

std::optional<std::int64_t> DateOf(const ZrHeaderFields::Values& values) {
  // A field given twice is no date.
  return values.size() == 1 ? zr::ParseHttpDate(values.front()) : std::nullopt;
}

}  // namespace

std::string zr::EntityTag(const ZrFileVersion& version, std::string_view coding) {
  std::uint64_t mixed = Mix(static_cast<std::uint64_t>(version.modified));
  mixed = Mix(mixed ^ version.device);
  mixed = Mix(mixed ^ version.node);
  std::string tag = "\"";
  AppendHex(tag, version.size);
  tag += '-';
  AppendHex(tag, mixed);
  if (!coding.empty()) tag.append(1, '-').append(coding);
  return tag += '"';
}

ZrPrecondition zr::CheckPreconditions(const ZrHeaderFields& request, bool reads,
                                      const ZrValidators& current) {
  if (!request.ContainsPrefix("if-")) return ZrPrecondition::kHolds;
  const auto modifiedAfter = [&](std::int64_t date) {
    return current.lastModified && *current.lastModified > date;
  };
  if (const auto match = request["if-match"]; !match.empty()) {
    if (!NamesTag(match, current.entityTag, true)) return ZrPrecondition::kFailed;
  } else if (const auto date = DateOf(request["if-unmodified-since"])) {
    if (modifiedAfter(*date)) return ZrPrecondition::kFailed;
  }
  if (const auto none = request["if-none-match"]; !none.empty()) {
    if (NamesTag(none, current.entityTag, false))
      return reads ? ZrPrecondition::kNotModified : ZrPrecondition::kFailed;
  } else if (reads && current.lastModified) {
    const auto date = DateOf(request["if-modified-since"]);
    if (date && !modifiedAfter(*date)) return ZrPrecondition::kNotModified;
  }
  return ZrPrecondition::kHolds;
}

bool zr::RangeCounts(const ZrHeaderFields& request, const ZrValidators& current, std::int64_t now) {
  const auto condition = request["if-range"];
  if (condition.empty()) return true;
  if (condition.size() > 1) return false;
  std::string_view text = TrimBlanks(condition.front());
  if (text.starts_with('"') || text.starts_with("W/")) {
    bool weak = false;
    const auto tag = TakeTag(text, weak);
    return tag && !weak && text.empty() && *tag == current.entityTag;
  }
  const auto date = ParseHttpDate(text);
  return date && current.lastModified && *date == *current.lastModified &&
         now - *current.lastModified >= 1;
}
