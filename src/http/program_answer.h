#pragma once
// The head that a program writes in front of its page, as standard semantics reads it (RFC 3875,
// 6): its fields become fields of the answer, "Status" its status, "Location" a redirect. The
// reader of the minimal dialect is in program_head.h.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

struct ZrProgramAnswer {
  enum class Read {
    kIncomplete,  ///< The empty line is still to come: read again with more.
    kComplete,
    kMalformed,  ///< Not the answer of a program: 502.
  };
  Read read = Read::kIncomplete;
  std::size_t headBytes = 0;  ///< what the page begins behind
  std::uint64_t status = 200;
  /// As written and in order, without those that are the server's own to say.
  std::vector<std::pair<std::string, std::string>> fields = {};
  /// The length that the program gives its page; others are taken as written.
  std::optional<std::uint64_t> contentLength = std::nullopt;
  /// A path within this site, with its query, whose answer is to be sent instead.
  std::string localRedirect = {};
};

namespace zr {

/// Longer heads are malformed.
inline constexpr std::size_t kMostProgramHead = std::size_t{64} * 1024;

/// Reads the head at the front of what a program has written so far. Lines end with LF or CR LF. A
/// "Location" with an address and no "Status" gives 302; with a path and nothing else it is a local
/// redirect.
ZrProgramAnswer ReadProgramAnswer(std::string_view output);

}  // namespace zr
