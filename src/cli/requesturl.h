#pragma once
// The addresses that a user asks for.

#include <cstdint>
#include <string>
#include <string_view>

namespace zr::cli {

/// One address: scheme://HOST[:PORT][/PATH][?QUERY].
struct RequestUrl {
  std::uint32_t protocolKind = 0;  ///< http, https or quarn
  std::string host;                ///< a name, an IPv4 address, or an IPv6 address in brackets
  int port = 0;
  std::string target;  ///< path and query as they are sent; a part behind "#" is not
};

/// Reads such a text; bytes that no target may have are percent-encoded. Throws UsageError, naming
/// the text and what is wrong with it.
RequestUrl ParseRequestUrl(std::string_view text);

}  // namespace zr::cli
