#pragma once
// The line that a server of the HTTP family reports for every message it sends.

#include <cstdint>
#include <string>
#include <string_view>

namespace zr {

enum class AccessLogFormat : std::uint8_t {
  kVelkoro,   ///< The system's own.
  kCombined,  ///< What log analysers read: the "combined" format of web servers, times in UTC.
  kJson,      ///< One JSON object.
};
/// The format of that name: "velkoro" (also ""), "combined" or "json". Throws ZrException for any
/// other.
AccessLogFormat AccessLogFormatNamed(std::string_view name);

/// What an access-log line tells; the texts may hold any bytes.
struct AccessLogEntry {
  std::string_view remote;       ///< the peer's address
  std::string_view scheme;       ///< of the protocol
  std::int64_t created = 0;      ///< when the message was made, in 100-ns ticks since 1970
  std::string_view requestText;  ///< method and target of the request
  std::string_view version;      ///< the third word of the request line; may be empty
  std::uint64_t status = 0;
  std::uint64_t bytes = 0;      ///< head and body together
  std::uint64_t headBytes = 0;  ///< the head's share of them
  std::string_view referer;
  std::string_view userAgent;
};

/// Appends the line, without a line end. No request can forge or break one: bytes below 0x20 and
/// 0x7F come as \xHH, in the JSON form as \u00HH like all that are no UTF-8.
void AppendAccessLogLine(std::string& line, const AccessLogEntry& entry, AccessLogFormat format);
/// The same alone.
std::string AccessLogLine(const AccessLogEntry& entry,
                          AccessLogFormat format = AccessLogFormat::kVelkoro);

}  // namespace zr
