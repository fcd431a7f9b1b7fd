#pragma once
// The addresses that programs and users give: where a server listens, and what is asked for.

#include <array>
#include <cstdint>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>

#include "http/protocol_kind.h"

namespace zr {

/// What is wrong with an address, without the address.
class AddressError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// One server: scheme://ADDRESS:PORT; the scheme is read in any case.
struct ListenAddress {
  std::uint32_t protocolKind = 0;  ///< http, https, quarn or socket
  std::string address;             ///< a host name, an IPv4 address, or an IPv6 address in brackets
  int port = 0;                    ///< 0: the system chooses
};

/// What is served at all.
inline constexpr std::array kServedProtocols = {kProtocolHttps, kProtocolHttp, kProtocolQuarn,
                                                kProtocolSocket};

/// Reads such a text with one of those protocols; a single "/" at its end is allowed. Throws
/// AddressError.
ListenAddress ReadListenAddress(std::string_view text,
                                std::span<const std::uint32_t> protocols = kServedProtocols);

/// One address to ask: scheme://HOST[:PORT][/PATH][?QUERY]; the scheme as above.
struct RequestAddress {
  std::uint32_t protocolKind = 0;  ///< http, https or quarn
  std::string host;                ///< a name, an IPv4 address, or an IPv6 address in brackets
  int port = 0;
  std::string target;  ///< path and query as they are sent; a part behind "#" is not
};

/// Reads such a text; bytes that no target may have are percent-encoded. Throws AddressError.
RequestAddress ReadRequestAddress(std::string_view text);

}  // namespace zr
