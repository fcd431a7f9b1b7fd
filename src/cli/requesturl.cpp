#include "cli/requesturl.h"

#include <optional>

#include "base/number.h"
#include "cli/command.h"
#include "http/protocol_kind.h"

namespace zr::cli {
namespace {

constexpr int kHttpPort = 80;
constexpr int kHttpsPort = 443;
constexpr int kMaxPort = 65535;
constexpr std::string_view kSchemeEnd = "://";

[[noreturn]] void Refuse(std::string_view text, const char* why) {
  throw UsageError("'" + std::string(text) + "': " + why);
}

std::uint32_t RequestedProtocol(std::string_view scheme) {
  for (const std::uint32_t kind : {kProtocolHttp, kProtocolHttps, kProtocolQuarn})
    if (ProtocolSchemeName(kind) == scheme) return kind;
  return 0;
}

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
int PortOf(std::string_view text, const std::optional<std::string_view>& given,
           std::uint32_t protocolKind) {
  if (!given) {
    if (protocolKind == kProtocolQuarn) Refuse(text, "a quarn address needs a port");
    return protocolKind == kProtocolHttps ? kHttpsPort : kHttpPort;
  }
  const auto port = ParseDigits(*given);
  if (!port || *port == 0 || *port > kMaxPort)
    Refuse(text, "the port must be a number from 1 to 65535");
  return static_cast<int>(*port);
}

}  // namespace

RequestUrl ParseRequestUrl(std::string_view text) {
  const std::size_t schemeEnd = text.find(kSchemeEnd);
  if (schemeEnd == std::string_view::npos) Refuse(text, "give it as https://HOST/PATH");
  RequestUrl url;
  url.protocolKind = RequestedProtocol(text.substr(0, schemeEnd));
  if (url.protocolKind == 0) Refuse(text, "the protocol must be https, http or quarn");
  std::string_view rest = text.substr(schemeEnd + kSchemeEnd.size());
  rest = rest.substr(0, rest.find('#'));
  const std::size_t targetStart = rest.find_first_of("/?");
  std::string_view place = rest.substr(0, targetStart);
  const std::string_view target =
      targetStart == std::string_view::npos ? std::string_view() : rest.substr(targetStart);
  url.target = (target.starts_with('/') ? "" : "/") + EncodedTarget(target);
  if (place.find('@') != std::string_view::npos)
    Refuse(text, "user names and passwords are not sent; give the address without");
  std::optional<std::string_view> port;
  if (const std::size_t colon = place.rfind(':');
      colon != std::string_view::npos && place.find(']', colon) == std::string_view::npos) {
    port = place.substr(colon + 1);
    place = place.substr(0, colon);
  }
  const bool bracketed = place.starts_with('[') && place.ends_with(']');
  if (place.empty() || place.find_first_of(" \t\r\n") != std::string_view::npos ||
      (!bracketed && place.find_first_of("[]:") != std::string_view::npos))
    Refuse(text, "the host must be a name, an IPv4 address or an IPv6 address in brackets");
  url.host = place;
  url.port = PortOf(text, port, url.protocolKind);
  return url;
}

}  // namespace zr::cli
