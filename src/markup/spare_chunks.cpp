#include "markup/spare_chunks.h"

#include <cstdlib>

#include "platform/thread.h"

zr::SpareChunks::~SpareChunks() {
  if (IsForkOfThreads()) return;  // the lock may be held for ever
  ZrLock hold(lock_);
  closed_ = true;
  for (Kept& kept : kept_)
    while (kept.count > 0) std::free(kept.chunks[--kept.count]);
}

void* zr::SpareChunks::Take(unsigned chunkClass) noexcept {
  ZrLock hold(lock_);
  Kept& kept = kept_[chunkClass];
  return kept.count == 0 ? nullptr : kept.chunks[--kept.count];
}

void zr::SpareChunks::Keep(void* chunk, unsigned chunkClass) noexcept {
  {
    ZrLock hold(lock_);
    Kept& kept = kept_[chunkClass];
    if (!closed_ && kept.count < Most(chunkClass)) {
      if (chunkClass == kClasses - 1) LendPages(chunk, kLargePage);
      kept.chunks[kept.count++] = chunk;
      return;
    }
  }
  std::free(chunk);
}
