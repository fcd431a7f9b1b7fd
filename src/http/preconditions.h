#pragma once
// Whether a request is still about the version of a file that it thinks of (RFC 9110, 8.8 and 13).

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "http/header_fields.h"

/// What tells one version of a file from another.
struct ZrFileVersion {
  std::uint64_t size = 0;     ///< bytes
  std::int64_t modified = 0;  ///< of the content, in nanoseconds since 1970
  std::uint64_t device = 0;   ///< with the node: which file it is, whatever its name
  std::uint64_t node = 0;
};

/// What an answer says of its version and its request may compare with.
struct ZrValidators {
  std::string entityTag;                     ///< with its quotes; strong; empty: none
  std::optional<std::int64_t> lastModified;  ///< seconds since 1970
};

/// What the preconditions of a request come to.
enum class ZrPrecondition {
  kHolds,        ///< Answer as if there were none.
  kNotModified,  ///< 304: the client has this version.
  kFailed,       ///< 412: it is another version than the client wants to work on.
};

namespace zr {

/// The strong tag of a version, quotes included; nothing of the file system can be read from it. A
/// body in another coding has the tag with that coding's name.
std::string EntityTag(const ZrFileVersion& version, std::string_view coding = {});

/// Evaluates "If-Match", "If-Unmodified-Since", "If-None-Match" and "If-Modified-Since" in that
/// order, each only where its forerunner allows it. `reads`: the method is GET or HEAD.
ZrPrecondition CheckPreconditions(const ZrHeaderFields& request, bool reads,
                                  const ZrValidators& current);
/// Whether a "Range" field counts: without "If-Range", or when that names this very version. A date
/// does only if the version was not made within the second before `now` (seconds since 1970).
bool RangeCounts(const ZrHeaderFields& request, const ZrValidators& current, std::int64_t now);

}  // namespace zr
