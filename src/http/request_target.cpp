#include "http/request_target.h"

#include <algorithm>
#include <array>

#include "base/byte_words.h"
#include "http/field_list.h"

namespace {

constexpr int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

constexpr bool IsDigit(char c) { return c >= '0' && c <= '9'; }

// Those of a registered name (RFC 3986, 3.2.2).
constexpr std::array<bool, 256> kNameBytes = [] {
  std::array<bool, 256> table{};
  for (const char c : std::string_view("0123456789-._~!$&'()*+,;=%"
                                       "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"))
    table[static_cast<unsigned char>(c)] = true;
  return table;
}();

// Bytes beyond ASCII should be encoded, and are not by every tool.
bool HasTargetBytesOnly(std::string_view text) {
  return zr::AllWords(
      text,
      [](std::uint64_t word) {
        return !zr::AnyBelow(word, ' ' + 1) && !zr::AnyIs(word, 0x7F) && !zr::AnyIs(word, '#');
      });
}

/// Whether the text begins with a byte in its escaped form.
bool IsEscape(std::string_view text) {
  return text.size() >= 3 && text[0] == '%' && HexDigit(text[1]) >= 0 && HexDigit(text[2]) >= 0;
}

bool DecodePath(std::string_view text, std::string& path) {
  if (text.find('%') == std::string_view::npos) {
    path = text;
    return true;
  }
  path.reserve(text.size());
  for (std::size_t at = 0; at < text.size(); ++at) {
    if (text[at] != '%') {
      path += text[at];
      continue;
    }
    if (!IsEscape(text.substr(at))) return false;
    const char byte = static_cast<char>(HexDigit(text[at + 1]) * 16 + HexDigit(text[at + 2]));
    if (byte == '\0' || byte == '/') return false;
    path += byte;
    at += 2;
  }
  return true;
}

}  // namespace

std::optional<zr::RequestTarget> zr::ParseRequestTarget(std::string_view text) {
  RequestTarget target;
  if (text == "*") {
    target.path = text;
    return target;
  }
  if (!HasTargetBytesOnly(text)) return std::nullopt;
  const std::size_t mark = std::min(text.find('?'), text.size());
  std::string_view path = text.substr(0, mark);
  target.query = text.substr(std::min(mark + 1, text.size()));
  if (!path.starts_with('/')) {
    const std::size_t colon = path.find("://");
    if (colon == std::string_view::npos) return std::nullopt;
    const std::string_view scheme = path.substr(0, colon);
    if (!EqualsIgnoringCase(scheme, "http") && !EqualsIgnoringCase(scheme, "https"))
      return std::nullopt;
    path.remove_prefix(colon + 3);
    const std::size_t slash = std::min(path.find('/'), path.size());
    target.authority = path.substr(0, slash);
    path.remove_prefix(slash);
    if (target.authority.empty() || !IsAuthority(target.authority)) return std::nullopt;
    if (path.empty()) path = "/";
  }
  if (!DecodePath(path, target.path)) return std::nullopt;
  RemoveDotSegments(target.path);
  return target;
}

void zr::RemoveDotSegments(std::string& path) {
  if (path.find("/.") == std::string::npos) return;
  std::string result;
  for (std::size_t at = 0; at < path.size();) {
    const std::size_t end = std::min(path.find('/', at + 1), path.size());
    const std::string_view piece = std::string_view(path).substr(at, end - at);
    const bool last = end == path.size();
    at = end;
    if (piece == "/..") result.erase(std::min(result.rfind('/'), result.size()));
    if (piece != "/." && piece != "/..")
      result += piece;
    else if (last)
      result += '/';
  }
  path = std::move(result);
}

bool zr::IsAuthority(std::string_view text) {
  std::size_t end = 0;
  if (text.starts_with('[')) {
    end = text.find(']');
    if (end == std::string_view::npos || end < 3) return false;
    const std::string_view address = text.substr(1, end - 1);
    if (!std::all_of(address.begin(), address.end(),
                     [](char c) { return HexDigit(c) >= 0 || c == ':' || c == '.'; }))
      return false;
    ++end;
  } else {
    for (; end < text.size() && kNameBytes[static_cast<unsigned char>(text[end])]; ++end)
      if (text[end] == '%' && !IsEscape(text.substr(end))) return false;
  }
  const std::string_view rest = text.substr(end);
  return rest.empty() ||
         (rest.front() == ':' && std::all_of(rest.begin() + 1, rest.end(), IsDigit));
}
