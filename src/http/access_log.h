#pragma once
// The line that a server of the HTTP family reports for every message it sends.

#include <cstdint>
#include <string>
#include <string_view>

namespace zr {

/// What an access-log line tells; the texts may hold any bytes.
struct AccessLogEntry {
  std::string_view remote;       ///< the peer's address
  std::string_view scheme;       ///< of the protocol
  std::int64_t seconds = 0;      ///< since 1970, when the message was made
  std::string_view requestText;  ///< method and target of the request
  std::uint64_t status = 0;
  std::uint64_t bytes = 0;  ///< head and body together
  std::string_view referer;
  std::string_view userAgent;
};

/// The line, without a line end. Bytes below 0x20 and 0x7F come as \xHH, so that no request can
/// forge or break a line.
std::string AccessLogLine(const AccessLogEntry& entry);

}  // namespace zr
