#pragma once
// A coding that a body goes through on its way out, piece by piece.

#include <string_view>

class ZrStringBuf;

/// Threads: one at a time.
class ZrBodyEncoder {
 public:
  virtual ~ZrBodyEncoder() = default;

  /// Encodes the piece and appends all that the receiver needs to read it, so that nothing of it
  /// waits for the next one. Throws std::bad_alloc.
  virtual void Encode(std::string_view piece, ZrStringBuf& out) = 0;
  /// The same, but what it appends, if anything, is for the coding to choose.
  virtual void Add(std::string_view piece, ZrStringBuf& out) = 0;
  /// Appends what ends the body. Called once, last. Throws std::bad_alloc.
  virtual void Finish(ZrStringBuf& out) = 0;
};
