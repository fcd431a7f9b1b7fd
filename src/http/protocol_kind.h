#pragma once
// The protocols of the system by their numbers, and the names they have in URLs and in the log.

#include <array>
#include <cstdint>
#include <string_view>

namespace zr {

inline constexpr std::uint32_t kProtocolHttp = 3;
inline constexpr std::uint32_t kProtocolHttps = 4;
inline constexpr std::uint32_t kProtocolFile = 5;  // has no server
inline constexpr std::uint32_t kProtocolQuarn = 6;
inline constexpr std::uint32_t kProtocolQuarns = 7;  // has no server
inline constexpr std::uint32_t kProtocolSocket = 9;

struct ProtocolScheme {
  std::uint32_t kind;
  std::string_view scheme;
};
inline constexpr std::array<ProtocolScheme, 6> kProtocolSchemes = {{{kProtocolHttp, "http"},
                                                                    {kProtocolHttps, "https"},
                                                                    {kProtocolFile, "file"},
                                                                    {kProtocolQuarn, "quarn"},
                                                                    {kProtocolQuarns, "quarns"},
                                                                    {kProtocolSocket, "socket"}}};

/// The scheme of a protocol kind, "none" for a kind that is not in the table.
constexpr std::string_view ProtocolSchemeName(std::uint32_t kind) {
  for (const ProtocolScheme& entry : kProtocolSchemes)
    if (entry.kind == kind) return entry.scheme;
  return "none";
}

}  // namespace zr
