#include "base/workbench.h"

namespace {

// Initial-exec: no loader lock at first use, which a thread could wait for while the library is
// unloaded.
[[gnu::tls_model("initial-exec")]] thread_local ZrWorkbench* current = nullptr;

// A memory checker is to see each block go.
#if defined(__SANITIZE_ADDRESS__)
constexpr bool kKeeps = false;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr bool kKeeps = false;
#else
constexpr bool kKeeps = true;
#endif
#else
constexpr bool kKeeps = true;
#endif

}  // namespace

ZrWorkbench::ZrWorkbench() noexcept : outer_(current) { current = this; }

ZrWorkbench::~ZrWorkbench() {
  kept_.clear();
  current = outer_;
  for (Shelf& shelf : shelves_)
    while (shelf.first) ::operator delete(std::exchange(shelf.first, shelf.first->next));
}

ZrWorkbench* ZrWorkbench::Current() noexcept { return current; }

void* ZrWorkbench::Take(std::size_t bytes) {
  if (bytes == 0 || bytes > kLargestBlock) return ::operator new(bytes);
  const std::size_t place = (bytes - 1) / kGrain;
  if (kKeeps && current) {
    Shelf& shelf = current->shelves_[place];
    if (shelf.first) {
      --shelf.count;
      return std::exchange(shelf.first, shelf.first->next);
    }
  }
  return ::operator new((place + 1) * kGrain);  // of the size that any shelf holds
}

void ZrWorkbench::Release(void* block, std::size_t bytes) noexcept {
  if (kKeeps && current && block && bytes > 0 && bytes <= kLargestBlock) {
    Shelf& shelf = current->shelves_[(bytes - 1) / kGrain];
    if (shelf.count < kMostBlocks) {
      ++shelf.count;
      shelf.first = new (block) Free{shelf.first};
      return;
    }
  }
  ::operator delete(block);
}
