#pragma once
// Parts of a body that a request asks for, and how several of them are sent (RFC 9110, 14).

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

/// The bytes of a body from one place to another, both included.
struct ZrByteRange {
  std::uint64_t first = 0;
  std::uint64_t last = 0;
  std::uint64_t Length() const { return last - first + 1; }
  bool operator==(const ZrByteRange&) const = default;
};

/// What a "Range" field comes to for a body of known size.
struct ZrByteRanges {
  enum class Kind {
    kWhole,  ///< No field, one that means nothing here, or one not worth to be followed: 200.
    kParts,  ///< The parts, one or several, in the order asked for: 206.
    kUnsatisfiable,  ///< None of the ranges has a byte of the body: 416.
  };
  Kind kind = Kind::kWhole;
  std::vector<ZrByteRange> parts = {};
};

namespace zr {

/// More ranges than that are answered with the whole body, like overlapping ones that amount to
/// more than it.
inline constexpr std::size_t kMostRanges = 16;

/// Reads the value of a "Range" field for a body of that many bytes.
ZrByteRanges ReadByteRanges(std::string_view field, std::uint64_t size);

/// The value of "Content-Range" for one part / for status 416.
std::string ContentRange(const ZrByteRange& range, std::uint64_t size);
std::string UnsatisfiedRange(std::uint64_t size);

/// A body of type multipart/byteranges: each part's head stands before the bytes of its range.
struct MultipartRanges {
  struct Part {
    std::string head;
    ZrByteRange range;
  };
  std::string contentType;
  std::vector<Part> parts;
  std::string end;           ///< behind the last range
  std::uint64_t length = 0;  ///< of the whole body, in bytes
};

/// The boundary must not occur in the body: random text of a token's characters, at most 70.
MultipartRanges MakeMultipartRanges(const std::vector<ZrByteRange>& ranges, std::uint64_t size,
                                    std::string_view contentType, std::string_view boundary);

}  // namespace zr
