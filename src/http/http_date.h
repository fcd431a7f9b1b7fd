#pragma once
// Times in fields (RFC 9110, 5.6.7): "Sun, 06 Nov 1994 08:49:37 GMT".

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace zr {

/// The text of a time, in seconds since 1970. Years before 0 and beyond 9999 are the nearest that
/// has a text.
std::string HttpDate(std::int64_t seconds);
/// The text of the present second; made once a second on each thread. Valid until the thread asks
/// again.
std::string_view HttpDateNow();
/// The time that a text gives, in seconds since 1970, in one of the three forms that the standard
/// knows; nothing for any other text.
std::optional<std::int64_t> ParseHttpDate(std::string_view text);

}  // namespace zr
