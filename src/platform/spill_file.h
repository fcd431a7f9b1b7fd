#pragma once
// Bytes that are too many for the heap: a temporary file without a name, written as the bytes come
// and mapped into memory when they are all there. It lies in the folder that TMPDIR names, else in
// the system's own. Nothing of it is left when the object and the process are gone.

#include <cstdint>
#include <memory>
#include <string_view>

#include "platform/descriptor.h"

/// Threads: one at a time.
class ZrSpillFile {
 public:
  /// Nothing when no such file can be made: no folder, no rights, no descriptor.
  static std::unique_ptr<ZrSpillFile> Create();
  ~ZrSpillFile();
  ZrSpillFile(const ZrSpillFile&) = delete;
  ZrSpillFile& operator=(const ZrSpillFile&) = delete;

  /// Adds bytes at the end. No: the disk took only some or none of them, and the file is of no
  /// further use.
  [[nodiscard]] bool Append(std::string_view bytes);
  std::uint64_t Size() const { return size_; }
  /// Maps what was added, once; nothing is added afterwards. No: the system refused. The view is
  /// then good as long as this object.
  [[nodiscard]] bool Map();
  std::string_view Bytes() const { return {data_, static_cast<std::size_t>(data_ ? size_ : 0)}; }

 private:
  explicit ZrSpillFile(ZrDescriptor descriptor) : descriptor_(std::move(descriptor)) {}

  ZrDescriptor descriptor_;
  std::uint64_t size_ = 0;
  const char* data_ = nullptr;
};
