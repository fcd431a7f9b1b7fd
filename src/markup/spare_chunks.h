#pragma once
// Chunks of node memory that were freed, kept for the next document: the system clears every page
// that it hands out, which took a third of the time to read ten megabytes, and more than half of it
// for a hundred kilobytes.

#include <array>
#include <cstddef>

#include "platform/pages.h"
#include "platform/sync.h"

namespace zr {

/// A few chunks of each class, the power of two of their size. The pages of the largest are the
/// system's to take back when it needs memory; lending the others costs what it saves. Threads:
/// any.
class SpareChunks {
 public:
  static constexpr unsigned kClasses = 6;
  static constexpr std::size_t SizeOf(unsigned chunkClass) {
    return kLargePage >> (kClasses - 1 - chunkClass);
  }
  /// The class of that size; kClasses for one that is not kept.
  static constexpr unsigned ClassOf(std::size_t size) {
    unsigned chunkClass = 0;
    while (chunkClass != kClasses && SizeOf(chunkClass) != size) ++chunkClass;
    return chunkClass;
  }
  /// 32 MiB of the largest, what documents of a few megabytes need, and 4 MiB of the others.
  static constexpr std::size_t Most(unsigned chunkClass) {
    return chunkClass == kClasses - 1 ? kMost : 2;
  }

  constexpr SpareChunks() = default;
  /// Frees them. One that is kept later, as the process ends, is freed at once.
  ~SpareChunks();
  SpareChunks(const SpareChunks&) = delete;
  SpareChunks& operator=(const SpareChunks&) = delete;

  /// The chunk of the class kept last, its content undefined; null when there is none.
  void* Take(unsigned chunkClass) noexcept;
  /// Takes over a chunk, which goes to std::free() when there are enough.
  void Keep(void* chunk, unsigned chunkClass) noexcept;

 private:
  static constexpr std::size_t kMost = 16;
  struct Kept {
    std::array<void*, kMost> chunks{};
    std::size_t count = 0;
  };

  ZrMutex lock_;
  std::array<Kept, kClasses> kept_ ZR_GUARDED_BY(lock_){};
  bool closed_ ZR_GUARDED_BY(lock_) = false;
};

}  // namespace zr
