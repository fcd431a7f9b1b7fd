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
#include "http/semantics.h"

/// The file, or the precompressed one in its place, that is to be sent.
struct ZrFileFacts {
  ZrFileVersion version;  ///< of the file that is sent
  std::string_view contentType;
  std::string_view coding = {};  ///< the token of "Content-Encoding"; empty: none
  bool varies = false;           ///< another request might get another coding
};

/// What answers say of a version of a file, in the form in which it is sent: made once for all
/// requests that find it.
struct ZrFileHead {
  ZrValidators current;
  std::uint64_t size = 0;
  std::string_view contentType;
  bool ranged = false;  ///< parts of it are given
  /// Lines of a head, each with its end. In front those that also a 304 has, as a cache needs them
  /// to find and renew what it holds (RFC 9111, 4.1 and 4.3.4), then all but the type.
  std::string fields;
  std::size_t versionFields = 0;
  std::size_t untypedFields = 0;
};

/// What to send.
struct ZrFileAnswer {
  /// 200, 206, 304, 412 or 416. The bodies of 412 and 416 are the caller's; 304 has none.
  std::uint64_t status = 200;
  /// So many bytes from the front of the file's `fields`, and these behind them. Length and date
  /// are not among them.
  std::size_t fields = 0;
  std::vector<std::pair<std::string_view, std::string>> more = {};
  /// 200: the whole file; 206: one range as it is, several in `several`.
  ZrByteRange range = {};
  zr::MultipartRanges several = {};
  std::uint64_t length = 0;  ///< of the body, for 200 and 206
};

namespace zr {

/// `now` is in seconds since 1970: a time of the file that is still to come is told as now. The
/// views of the facts stay the caller's.
ZrFileHead MakeFileHead(const ZrFileFacts& file, std::int64_t now);

/// `boundary` as for MakeMultipartRanges(); used for several ranges only. POST gets what GET does,
/// but no range, and 412 in the place of 304.
ZrFileAnswer AnswerForFile(ZrMethod method, const ZrHeaderFields& request, const ZrFileHead& file,
                           std::int64_t now, std::string_view boundary);

}  // namespace zr
