#include "markup/spare_chunks.h"

#include <cstdlib>

#include "platform/thread.h"

zr::SpareChunks::~SpareChunks() {
  if (IsForkOfThreads()) return;  // the lock may be held for ever
  ZrLock hold(lock_);
  closed_ = true;
  while (count_ > 0) std::free(chunks_[--count_]);
}

void* zr::SpareChunks::Take() noexcept {
  ZrLock hold(lock_);
  return count_ == 0 ? nullptr : chunks_[--count_];
}

void zr::SpareChunks::Keep(void* chunk) noexcept {
  {
    ZrLock hold(lock_);
    if (!closed_ && count_ < kMost) {
      LendPages(chunk, kLargePage);
      chunks_[count_++] = chunk;
      return;
    }
  }
  std::free(chunk);
}
