#include "platform/pages.h"

#include <sys/mman.h>

namespace zr {

void PreferLargePages([[maybe_unused]] void* memory, [[maybe_unused]] std::size_t size) noexcept {
#ifdef MADV_HUGEPAGE
  // The answer does not matter: small pages do as well, only slower.
  (void)::madvise(memory, size, MADV_HUGEPAGE);
#endif
}

void LendPages([[maybe_unused]] void* memory, [[maybe_unused]] std::size_t size) noexcept {
#ifdef MADV_FREE
  (void)::madvise(memory, size, MADV_FREE);
#endif
}

}  // namespace zr
