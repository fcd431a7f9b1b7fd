#pragma once
// How a request for a file is answered in standard semantics (RFC 9110, 13 to 15): preconditions,
// then ranges. A pure function from what is known of request and file to what the answer says and
// which of the file's bytes it has.

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "http/byte_ranges.h"
#include "http/header_fields.h"
#include "http/preconditions.h"

/// The file, or the precompressed one in its place, that is to be sent.
struct ZrFileFacts {
  ZrFileVersion version;  ///< of the file that is sent
  std::string_view contentType;
  std::string_view coding = {};  ///< the token of "Content-Encoding"; empty: none
  bool varies = false;           ///< another request might get another coding
};

/// What to send.
struct ZrFileAnswer {
  /// 200, 206, 304, 412 or 416. The bodies of 412 and 416 are the caller's; 304 has none.
  std::uint64_t status = 200;
  /// In the order in which they are sent; length and date are not among them.
  std::vector<std::pair<std::string_view, std::string>> fields = {};
  /// 200: the whole file; 206: one range as it is, several in `several`.
  ZrByteRange range = {};
  zr::MultipartRanges several = {};
  std::uint64_t length = 0;  ///< of the body, for 200 and 206
};

namespace zr {

/// `now` is in seconds since 1970. `boundary` as for MakeMultipartRanges(); used for several ranges
/// only. The request's method is GET or HEAD.
ZrFileAnswer AnswerForFile(const ZrHeaderFields& request, const ZrFileFacts& file, std::int64_t now,
                           std::string_view boundary);

}  // namespace zr
