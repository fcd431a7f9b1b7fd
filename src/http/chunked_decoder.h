#pragma once
// Takes the frame off a body that came in chunks (RFC 9112, 7.1). The data is not moved here: the
// decoder says how much of the input's front is data, the caller takes it.

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "base/string_buffer.h"

/// One body. Threads: one at a time.
class ZrChunkedDecoder {
 public:
  enum class Next {
    kIncomplete,  ///< Go on when more has arrived.
    kData,        ///< Up to Remaining() bytes of the input are data: take some, then call Took().
    kEnd,         ///< The body is complete; the input keeps what follows.
    kNoSize,      ///< A size line is none, or too long.
    kNoEnd,       ///< A chunk does not end where its size says.
    kTrailers,    ///< The fields behind the body are too long, or no lines.
  };

  static constexpr std::size_t kMaxChunkLine = 4096;  ///< bytes of a chunk's size line
  static constexpr std::size_t kMaxTrailers = 65536;  ///< bytes of the fields behind the last chunk

  /// Consumes what frames the data, up to the next data or the end. Extensions and trailing fields
  /// mean nothing here. Lines end with CR LF: a lone CR or LF, which others on the way may take for
  /// an end, is an error.
  Next Read(ZrStringBuf& input);
  /// What is still to come of the chunk, in bytes.
  std::uint64_t Remaining() const { return remaining_; }
  void Took(std::uint64_t bytes) { remaining_ -= bytes; }

 private:
  enum class Step { kSize, kData, kDataEnd, kTrailers, kDone };

  Next ReadSize(ZrStringBuf& input);
  Next ReadDataEnd(ZrStringBuf& input);
  Next ReadTrailers(ZrStringBuf& input);

  Step step_ = Step::kSize;
  std::uint64_t remaining_ = 0;
  std::size_t trailerBytes_ = 0;  // read so far
};
