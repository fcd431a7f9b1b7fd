#pragma once
// A body on its way in that does not stay on the heap: nobody wants it, or it is too large.

#include <cstdint>
#include <memory>

#include "base/string_buffer.h"

class ZrSpillFile;

/// Takes a body piece by piece. Threads: one at a time.
class ZrBodyStore {
 public:
  /// Larger bodies do not lie on the heap, in bytes.
  static constexpr std::uint64_t kHeapLimit = std::uint64_t{1} << 20;

  /// Counts what comes, and keeps nothing of it.
  static std::unique_ptr<ZrBodyStore> Nowhere();
  /// Writes what comes to a temporary file; nothing when none can be made.
  static std::unique_ptr<ZrBodyStore> InAFile();
  ~ZrBodyStore();

  /// Takes all bytes of the buffer. No: the disk is full, and the body is lost.
  [[nodiscard]] bool Take(ZrStringBuf& bytes);
  /// The bytes taken so far.
  std::uint64_t Size() const { return size_; }
  /// The whole body, to be read like any other buffer; an empty one when nothing was kept. Nothing
  /// when the system refused it. Called once.
  std::unique_ptr<ZrStringBuf> Finish();

 private:
  explicit ZrBodyStore(std::unique_ptr<ZrSpillFile> file);

  std::unique_ptr<ZrSpillFile> file_;  // none: bytes are only counted
  std::uint64_t size_ = 0;
};
