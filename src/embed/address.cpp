#include "embed/address.h"

#include <algorithm>
#include <optional>

#include "base/number.h"
#include "http/field_list.h"

namespace zr {
namespace {

[[noreturn]] void Refuse(const std::string& why) { throw AddressError(why); }

constexpr int kMaxPort = 65535;
constexpr std::string_view kSchemeEnd = "://";

/// Of those kinds the one whose scheme that is, in any case.
std::uint32_t ReadScheme(std::string_view scheme, std::span<const std::uint32_t> kinds) {
  std::string names;
  for (const std::uint32_t kind : kinds) {
    const std::string_view name = ProtocolSchemeName(kind);
    if (EqualsIgnoringCase(scheme, name)) return kind;
    if (!names.empty()) names += kind == kinds.back() ? " or " : ", ";
    names += name;
  }
  Refuse("the protocol must be " + names);
}

/// What may stand in the name of a host or in an address; brackets only around an IPv6 address.
bool IsAddress(std::string_view address) {
  const bool bracketed = address.size() > 2 && address.front() == '[' && address.back() == ']';
  const std::string_view inner = bracketed ? address.substr(1, address.size() - 2) : address;
  constexpr std::string_view kHex = "0123456789abcdefABCDEF:.";
  if (bracketed) {
    return inner.find_first_not_of(kHex) == std::string_view::npos &&
           inner.find(':') != std::string_view::npos;
  }
  return !inner.empty() && std::all_of(inner.begin(), inner.end(), [](char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '.' ||
           c == '-' || c == '_';
  });
}

constexpr int kHttpPort = 80;
constexpr int kHttpsPort = 443;

constexpr std::array kAskedProtocols = {kProtocolHttps, kProtocolHttp, kProtocolQuarn};

std::string EncodedTarget(std::string_view target) {
  constexpr std::string_view kDigits = "0123456789ABCDEF";
  std::string text;
  for (const char c : target) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte > 0x20 && byte < 0x7F) {
      text += c;
      continue;
    }
    text += '%';
    text += kDigits[byte >> 4U];
    text += kDigits[byte & 0xFU];
  }
  return text;
}

/// The port behind the colon; the protocol's own without one.
int PortOf(const std::optional<std::string_view>& given, std::uint32_t protocolKind) {
  if (!given) {
    if (protocolKind == kProtocolQuarn) Refuse("a quarn address needs a port");
    return protocolKind == kProtocolHttps ? kHttpsPort : kHttpPort;
  }
  const auto port = ParseDigits(*given);
  if (!port || *port == 0 || *port > kMaxPort) Refuse("the port must be a number from 1 to 65535");
  return static_cast<int>(*port);
}

}  // namespace

ListenAddress ReadListenAddress(std::string_view text, std::span<const std::uint32_t> protocols) {
  std::string_view rest = text;
  const std::size_t schemeEnd = rest.find(kSchemeEnd);
  if (schemeEnd == std::string_view::npos) Refuse("give it as https://ADDRESS:PORT");
  ListenAddress url;
  url.protocolKind = ReadScheme(rest.substr(0, schemeEnd), protocols);
  rest.remove_prefix(schemeEnd + kSchemeEnd.size());
  if (rest.ends_with('/')) rest.remove_suffix(1);
  const std::size_t colon = rest.rfind(':');
  if (colon == std::string_view::npos || rest.ends_with(']'))
    Refuse("the port is missing; port 0 lets the system choose one");
  url.address = rest.substr(0, colon);
  if (!IsAddress(url.address))
    Refuse("the address must be a name, an IPv4 address or an IPv6 address in brackets");
  const auto port = ParseDigits(rest.substr(colon + 1));
  if (!port || *port > kMaxPort) Refuse("the port must be a number from 0 to 65535");
  url.port = static_cast<int>(*port);
  return url;
}

RequestAddress ReadRequestAddress(std::string_view text) {
  const std::size_t schemeEnd = text.find(kSchemeEnd);
  if (schemeEnd == std::string_view::npos) Refuse("give it as https://HOST/PATH");
  RequestAddress url;
  url.protocolKind = ReadScheme(text.substr(0, schemeEnd), kAskedProtocols);
  std::string_view rest = text.substr(schemeEnd + kSchemeEnd.size());
  rest = rest.substr(0, rest.find('#'));
  const std::size_t targetStart = rest.find_first_of("/?");
  std::string_view place = rest.substr(0, targetStart);
  const std::string_view target =
      targetStart == std::string_view::npos ? std::string_view() : rest.substr(targetStart);
  url.target = (target.starts_with('/') ? "" : "/") + EncodedTarget(target);
  if (place.find('@') != std::string_view::npos)
    Refuse("user names and passwords are not sent; give the address without");
  std::optional<std::string_view> port;
  if (const std::size_t colon = place.rfind(':');
      colon != std::string_view::npos && place.find(']', colon) == std::string_view::npos) {
    port = place.substr(colon + 1);
    place = place.substr(0, colon);
  }
  const bool bracketed = place.starts_with('[') && place.ends_with(']');
  if (place.empty() || place.find_first_of(" \t\r\n") != std::string_view::npos ||
      (!bracketed && place.find_first_of("[]:") != std::string_view::npos))
    Refuse("the host must be a name, an IPv4 address or an IPv6 address in brackets");
  url.host = place;
  url.port = PortOf(port, url.protocolKind);
  return url;
}

}  // namespace zr
