#pragma once
// Why a request got no answer. Travels as two texts, "reason" and "error", in events and reports.

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

enum class ZrSendFailureKind : std::uint32_t {
  kNone = 0,        ///< There is none.
  kNoHost = 1,      ///< The host's name has no address.
  kRefused = 2,     ///< Nobody listens there.
  kTimedOut = 3,    ///< No connection, or no answer, within the limit.
  kTls = 4,         ///< The TLS handshake failed, or the peer's certificate is not trusted.
  kUnreadable = 5,  ///< An answer that makes no sense, is cut short or beyond a limit.
  kClosed = 6,      ///< The peer closed the connection without a word of answer, twice.
  kNotSent = 7,     ///< The request could not be sent; the detail says why.
  kStopped = 8,     ///< This side stopped while the request waited or was out.
};

struct ZrSendFailure {
  ZrSendFailureKind kind = ZrSendFailureKind::kNone;
  std::string detail = {};  ///< The cause in words; may be empty.
  bool mayResend = false;   ///< Nothing of an answer has arrived: another connection may do better.
};

namespace zr {

inline constexpr std::array<std::string_view, 9> kSendFailureReasons = {"",
                                                                        "no such host",
                                                                        "connection refused",
                                                                        "timed out",
                                                                        "TLS failure",
                                                                        "unreadable answer",
                                                                        "connection closed",
                                                                        "not sent",
                                                                        "stopped"};

/// The kind in words, as the entry "reason" carries it.
constexpr std::string_view SendFailureReason(ZrSendFailureKind kind) {
  return kSendFailureReasons[static_cast<std::size_t>(kind)];
}

/// The kind of such a text; kNotSent for any other.
constexpr ZrSendFailureKind SendFailureKindOf(std::string_view reason) {
  for (std::size_t kind = 1; kind < kSendFailureReasons.size(); ++kind)
    if (kSendFailureReasons[kind] == reason) return static_cast<ZrSendFailureKind>(kind);
  return ZrSendFailureKind::kNotSent;
}

}  // namespace zr
