#pragma once
// Large chunks of node memory that were freed, kept for the next document: the system clears every
// page that it hands out, which took a third of the time to read ten megabytes.

#include <array>
#include <cstddef>

#include "platform/pages.h"
#include "platform/sync.h"

namespace zr {

/// A few chunks of kLargePage bytes, aligned to it. Their pages are the system's to take back when
/// it needs memory. Threads: any.
class SpareChunks {
 public:
  /// 32 MiB: what documents of a few megabytes need.
  static constexpr std::size_t kMost = 16;

  constexpr SpareChunks() = default;
  /// Frees them. One that is kept later, as the process ends, is freed at once.
  ~SpareChunks();
  SpareChunks(const SpareChunks&) = delete;
  SpareChunks& operator=(const SpareChunks&) = delete;

  /// The chunk kept last, its content undefined; null when there is none.
  void* Take() noexcept;
  /// Takes over a chunk from std::aligned_alloc(), with std::free() when there are enough.
  void Keep(void* chunk) noexcept;

 private:
  ZrMutex lock_;
  std::array<void*, kMost> chunks_ ZR_GUARDED_BY(lock_){};
  std::size_t count_ ZR_GUARDED_BY(lock_) = 0;
  bool closed_ ZR_GUARDED_BY(lock_) = false;
};

}  // namespace zr
