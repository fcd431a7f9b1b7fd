// Where the standard lets a reader choose between lenient and strict, this one is strict as soon as
// another reader on the way could see another message in the same bytes: all lines of a head end
// alike (CR LF, or LF alone as tools send it by hand), a CR stands nowhere else, names have no
// blanks, lines are not folded, and there is one way to tell where the body ends.

#include "http/standard_head.h"

#include <algorithm>
#include <array>
#include <optional>

#include "base/number.h"
#include "http/field_list.h"
#include "http/field_syntax.h"
#include "http/form_body.h"
#include "http/message_head.h"
#include "http/request_target.h"
#include "http/semantics_standard.h"

namespace {

constexpr std::uint64_t kFine = 0;
constexpr std::uint64_t kBadRequest = 400;
constexpr std::uint64_t kContentTooLarge = 413;
constexpr std::uint64_t kTargetTooLong = 414;
constexpr std::uint64_t kExpectationFailed = 417;
constexpr std::uint64_t kHeadTooLarge = 431;
constexpr std::uint64_t kNotImplemented = 501;
constexpr std::uint64_t kVersionNotSupported = 505;

// Empty lines in front of a request, which some clients send behind a body, in bytes.
constexpr std::size_t kMaxEmptyLines = 16;
constexpr std::size_t kUsualLines = 16;  // a first guess; the container grows past it

struct Method {
  std::string_view name;
  ZrMethod method;
  ZrMessageType type;  // what it is to those who know two methods
};
constexpr std::array<Method, 7> kMethods = {{
    {"GET", ZrMethod::kGet, ZrMessageType::kGet},
    {"POST", ZrMethod::kPost, ZrMessageType::kPost},
    {"HEAD", ZrMethod::kHead, ZrMessageType::kGet},
    {"PUT", ZrMethod::kPut, ZrMessageType::kPost},
    {"PATCH", ZrMethod::kPatch, ZrMessageType::kPost},
    {"DELETE", ZrMethod::kDelete, ZrMessageType::kPost},
    {"OPTIONS", ZrMethod::kOptions, ZrMessageType::kGet},
}};

std::uint64_t ReadVersion(ZrXHeader& message, std::string_view text) {
  const auto digit = [&text](std::size_t at) { return text[at] >= '0' && text[at] <= '9'; };
  if (text.size() != 8 || !text.starts_with("HTTP/") || !digit(5) || text[6] != '.' || !digit(7))
    return kBadRequest;
  if (text[5] != '1') return kVersionNotSupported;
  message.oldVersion = text[7] == '0';
  return kFine;
}

std::uint64_t ReadTarget(ZrXHeader& message, std::string_view text) {
  auto target = zr::ParseRequestTarget(text);
  if (!target || (target->path == "*" && message.method != ZrMethod::kOptions)) return kBadRequest;
  message.path = std::move(target->path);
  message.query = target->query;
  message.authority = target->authority;
  if (message.query.empty()) return kFine;
  zr::AppendUrlEncoded(message, message.query, true);
  for (const auto& block : message.blocks) {
    if (block->Name().empty()) continue;
    message.allFields.insert_or_assign(std::string(block->Name()), block.get());
    message.queryFields.insert_or_assign(std::string(block->Name()), block.get());
  }
  return kFine;
}

std::uint64_t ReadRequestLine(ZrXHeader& message, std::string_view line) {
  const std::size_t first = line.find(' ');
  const std::size_t last = line.rfind(' ');
  const std::string_view name = line.substr(0, first);
  if (!zr::IsToken(name) || first == last) return kBadRequest;
  const std::string_view target = line.substr(first + 1, last - first - 1);
  message.headers.Reserve(std::min(message.body->Size(), zr::kMaxHeadBytes) + zr::kFirstLine.size(),
                          kUsualLines);
  message.headers.Append(zr::kFirstLine, std::to_array({name, target, line.substr(last + 1)}));
  if (const std::uint64_t refusal = ReadVersion(message, line.substr(last + 1)); refusal != kFine)
    return refusal;
  const auto known = std::find_if(kMethods.begin(), kMethods.end(),
                                  [name](const Method& entry) { return entry.name == name; });
  if (known == kMethods.end()) return kNotImplemented;
  message.method = known->method;
  message.messageType = known->type;
  return ReadTarget(message, target);
}

// The fields that say where the message ends and what becomes of the connection; few have one.
bool IsFramingField(std::string_view name) {
  switch (name.size()) {
    case 6:
      return name == "expect";
    case 10:
      return name == "connection";
    case 14:
      return name == "content-length";
    case 17:
      return name == "transfer-encoding";
    default:
      return false;
  }
}

bool ReadField(ZrXHeader& message, std::string_view line) {
  const std::size_t colon = line.find(':');
  if (colon == std::string_view::npos || colon == 0) return false;
  char* const name = message.headers.Space(line.size());
  for (std::size_t at = 0; at < colon; ++at)
    if ((name[at] = zr::LowerTokenByte(line[at])) == '\0') return false;
  const std::string_view value = zr::TrimBlanks(line.substr(colon + 1));
  std::copy(value.begin(), value.end(), name + colon);
  message.reading.framed = message.reading.framed || IsFramingField({name, colon});
  message.headers.Enter(colon, value.size());
  return true;
}

std::uint64_t ReadCodings(ZrXHeader& message, const ZrHeaderFields::Values& codings) {
  std::size_t chunked = 0;
  bool known = true;
  zr::AllListElements(codings, [&](std::string_view coding) {
    const bool isChunked = zr::EqualsIgnoringCase(coding, "chunked");
    chunked += isChunked ? 1 : 0;
    known = known && (isChunked || !zr::IsToken(coding));
    return true;
  });
  if (!known) return kNotImplemented;
  bool only = chunked == 1;
  zr::AllListElements(codings, [&only](std::string_view coding) {
    only = only && (coding.empty() || zr::EqualsIgnoringCase(coding, "chunked"));
    return true;
  });
  if (!only || message.oldVersion) return kBadRequest;
  message.reading.chunks.emplace();
  return kFine;
}

std::uint64_t ReadLength(ZrXHeader& message, const ZrHeaderFields::Values& lengths) {
  std::optional<std::string_view> given;
  const bool agree = zr::AllListElements(lengths, [&given](std::string_view length) {
    const bool digits = !length.empty() && std::all_of(length.begin(), length.end(),
                                                       [](char c) { return c >= '0' && c <= '9'; });
    const bool same = !given || *given == length;
    given = length;
    return digits && same;
  });
  if (!agree) return kBadRequest;
  const auto length = zr::ParseDigits(*given);  // none: more than a number holds
  if (!length || *length > zr::kMaxBodyBytes) return kContentTooLarge;
  message.declaredLength = *length;
  return kFine;
}

std::uint64_t ReadFraming(ZrXHeader& message) {
  const ZrHeaderFields::Values codings = message.headers["transfer-encoding"];
  const ZrHeaderFields::Values lengths = message.headers["content-length"];
  if (!codings.empty()) return lengths.empty() ? ReadCodings(message, codings) : kBadRequest;
  return lengths.empty() ? kFine : ReadLength(message, lengths);
}

std::uint64_t FinishHead(ZrXHeader& message) {
  const ZrHeaderFields::Values hosts = message.headers["host"];
  if (hosts.size() > 1 || (hosts.empty() && !message.oldVersion) ||
      (!hosts.empty() && !zr::IsAuthority(hosts.front())))
    return kBadRequest;
  if (message.authority.empty() && !hosts.empty()) message.authority = hosts.front();
  message.closeRequested = message.oldVersion;
  if (!message.reading.framed) return kFine;
  if (const std::uint64_t refusal = ReadFraming(message); refusal != kFine) return refusal;

  const ZrHeaderFields::Values connection = message.headers["connection"];
  const bool close = zr::HasListElement(connection, "close");
  message.keepsOld = message.oldVersion && !close && zr::HasListElement(connection, "keep-alive");
  message.closeRequested = close || (message.oldVersion && !message.keepsOld);

  const ZrHeaderFields::Values expected = message.headers["expect"];
  if (expected.empty() || message.oldVersion) return kFine;
  if (expected.size() != 1 || !zr::EqualsIgnoringCase(expected.front(), "100-continue"))
    return kExpectationFailed;
  message.reading.expectsContinue = true;
  return kFine;
}

// What cannot begin a method begins no request, whether or not its line ever ends.
bool BeginsNoRequest(std::string_view bytes) {
  return !bytes.empty() && !zr::IsTokenByte(bytes.front()) && bytes.front() != '\r' &&
         bytes.front() != '\n';
}

}  // namespace

std::uint64_t zr::ReadStandardHead(ZrXHeader& message) {
  using LineEnd = ZrMessageReading::LineEnd;
  ZrMessageReading& place = message.reading;
  for (;;) {
    const std::string_view unread = message.body->Unread();
    const std::size_t end = unread.find('\n', place.scanned);
    const bool ended = end != std::string_view::npos;
    const std::size_t bytes = ended ? end + 1 : unread.size();
    const bool first = place.lineCount == 0;
    if (first && BeginsNoRequest(unread)) return kBadRequest;
    if (first && bytes > kMaxRequestLine) return kTargetTooLong;
    if (place.headBytes + bytes > kMaxHeadBytes) return kHeadTooLarge;
    if (!ended) {
      place.scanned = unread.size();
      return kFine;
    }
    std::string_view line = unread.substr(0, end);
    const LineEnd lineEnd = line.ends_with('\r') ? LineEnd::kCrLf : LineEnd::kLf;
    if (lineEnd == LineEnd::kCrLf) line.remove_suffix(1);
    const bool empty = line.empty();
    if (!(first && empty)) {
      if (place.lineEnd != LineEnd::kUnknown && place.lineEnd != lineEnd) return kBadRequest;
      place.lineEnd = lineEnd;
    }
    if (!IsFieldValue(line)) return kBadRequest;
    if (!empty) {
      if (place.lineCount == kMaxHeadLines) return kHeadTooLarge;
      if (first) {
        if (const std::uint64_t refusal = ReadRequestLine(message, line); refusal != kFine)
          return refusal;
      } else if (!ReadField(message, line)) {
        return kBadRequest;
      }
      ++place.lineCount;
    }
    message.body->Consume(bytes);
    place.headBytes += bytes;
    place.scanned = 0;
    if (!empty) continue;
    if (first && place.headBytes > kMaxEmptyLines) return kBadRequest;
    if (first) continue;
    place.inHead = false;
    return FinishHead(message);
  }
}
