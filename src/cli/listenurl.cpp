#include "cli/listenurl.h"

#include <algorithm>

#include "base/number.h"
#include "cli/command.h"
#include "http/protocol_kind.h"

namespace zr::cli {
namespace {

constexpr int kMaxPort = 65535;
constexpr std::string_view kSchemeEnd = "://";

[[noreturn]] void Refuse(std::string_view text, std::string_view why) {
  throw UsageError("--listen '" + std::string(text) + "': " + std::string(why));
}

std::uint32_t ServedProtocol(std::string_view scheme) {
  for (const std::uint32_t kind : {kProtocolHttp, kProtocolHttps, kProtocolQuarn, kProtocolSocket})
    if (ProtocolSchemeName(kind) == scheme) return kind;
  return 0;
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

}  // namespace

ListenUrl ParseListenUrl(std::string_view text) {
  std::string_view rest = text;
  const std::size_t schemeEnd = rest.find(kSchemeEnd);
  if (schemeEnd == std::string_view::npos) Refuse(text, "give it as https://ADDRESS:PORT");
  ListenUrl url;
  url.protocolKind = ServedProtocol(rest.substr(0, schemeEnd));
  if (url.protocolKind == 0) Refuse(text, "the protocol must be https, http, quarn or socket");
  rest.remove_prefix(schemeEnd + kSchemeEnd.size());
  if (rest.ends_with('/')) rest.remove_suffix(1);
  const std::size_t colon = rest.rfind(':');
  if (colon == std::string_view::npos || rest.ends_with(']'))
    Refuse(text, "the port is missing; port 0 lets the system choose one");
  url.address = rest.substr(0, colon);
  if (!IsAddress(url.address))
    Refuse(text, "the address must be a name, an IPv4 address or an IPv6 address in brackets");
  const auto port = ParseDigits(rest.substr(colon + 1));
  if (!port || *port > kMaxPort) Refuse(text, "the port must be a number from 0 to 65535");
  url.port = static_cast<int>(*port);
  return url;
}

}  // namespace zr::cli
