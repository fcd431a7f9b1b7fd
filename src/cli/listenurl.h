#pragma once
// The addresses that a user asks servers for.

#include <cstdint>
#include <string>
#include <string_view>

namespace zr::cli {

/// One server: scheme://ADDRESS:PORT.
struct ListenUrl {
  std::uint32_t protocolKind = 0;  ///< http, https, quarn or socket
  std::string address;             ///< a host name, an IPv4 address, or an IPv6 address in brackets
  int port = 0;                    ///< 0: the system chooses
};

/// Reads such a text; a single "/" at its end is allowed. Throws UsageError, naming the text and
/// what is wrong with it.
ListenUrl ParseListenUrl(std::string_view text);

}  // namespace zr::cli
