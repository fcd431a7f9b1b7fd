#include "http/form_body.h"

#include <algorithm>
#include <utility>

#include "base/line_writer.h"
#include "http/field_list.h"

namespace {

constexpr std::string_view kMultipart = "multipart/form-data;boundary=";
constexpr std::string_view kUrlEncoded = "application/x-www-form-urlencoded";

constexpr int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// The type of the body as the minimal dialect keeps it: without blanks, and the boundary without
// quotes. Standard semantics keep a value as it was sent.
std::string PlainType(const ZrXHeader& request, std::string_view type) {
  if (!request.semantics->IsStandard()) return std::string(type);
  const std::size_t end = std::min(type.find(';'), type.size());
  std::string plain = zr::LowerCase(zr::TrimBlanks(type.substr(0, end)));
  std::string_view rest = type.substr(end);
  while (!rest.empty()) {
    rest.remove_prefix(1);
    const std::string_view part = zr::TrimBlanks(rest.substr(0, rest.find(';')));
    rest.remove_prefix(std::min(rest.find(';'), rest.size()));
    const std::size_t equals = part.find('=');
    if (equals == std::string_view::npos) continue;
    std::string_view value = part.substr(equals + 1);
    if (value.size() >= 2 && value.starts_with('"') && value.ends_with('"'))
      value = value.substr(1, value.size() - 2);
    if (!zr::EqualsIgnoringCase(part.substr(0, equals), "boundary")) continue;
    return plain.append(";boundary=").append(value);
  }
  return plain;
}

}  // namespace

std::string zr::DecodePercent(std::string_view text, bool plusIsSpace) {
  std::string result;
  result.reserve(text.size());
  for (std::size_t at = 0; at < text.size(); ++at) {
    const char c = text[at];
    if (c == '%' && text.size() - at > 2) {
      const int high = HexDigit(text[at + 1]);
      const int low = HexDigit(text[at + 2]);
      if (high >= 0 && low >= 0) {
        result += static_cast<char>(high * 16 + low);
        at += 2;
        continue;
      }
    }
    result += c == '+' && plusIsSpace ? ' ' : c;
  }
  return result;
}

void zr::AppendUrlEncoded(ZrXHeader& head, std::string_view text, bool plusIsSpace) {
  while (!text.empty() && head.blocks.size() < kMaxFormFields) {
    const std::size_t end = text.find('&');
    const std::string_view piece = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    const std::size_t equals = piece.find('=');
    if (equals == std::string_view::npos) continue;
    ZrHTTPMessageBlock& block = head.AddBlock();
    block.attributes["name"] = DecodePercent(piece.substr(0, equals), plusIsSpace);
    block.content =
        std::make_unique<ZrStringBuf>(DecodePercent(piece.substr(equals + 1), plusIsSpace));
  }
}

ZrReadResult ParseFormBody(ZrXHeader& request) {
  const ZrReadResult state = request.BodyState();
  if (state != ZrReadResult::kComplete) return state;

  const ZrHeaderFields::Values types = request.headers["content-type"];
  const std::string type = types.empty() ? std::string() : PlainType(request, types.front());
  const std::string_view body = request.body ? request.body->Unread() : std::string_view();
  if (type.starts_with(kMultipart))
    zr::AppendMultipart(request, body, std::string_view(type).substr(kMultipart.size()));
  else if (type.starts_with(kUrlEncoded))
    zr::AppendUrlEncoded(request, body, true);
  else if (!types.empty() && !request.semantics->IsStandard())
    zr::WriteDiagnostic("content type not defined", "content type not defined (" + type + ")");

  for (const auto& block : request.blocks) {
    if (block->Name().empty()) continue;
    request.allFields.insert_or_assign(std::string(block->Name()), block.get());
    request.bodyFields.insert_or_assign(std::string(block->Name()), block.get());
  }
  return ZrReadResult::kComplete;
}
