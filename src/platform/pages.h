#pragma once
// Memory in large pieces. Threads: any.

#include <cstddef>

namespace zr {

/// The size and alignment of a large page. A piece of memory that is to lie in large pages is a
/// multiple of it in both.
inline constexpr std::size_t kLargePage = std::size_t{2} << 20;

/// Asks the system to back this memory with large pages: a hint, for memory that will be filled at
/// once, where the system would else fetch page by page. A system that has none ignores it.
void PreferLargePages(void* memory, std::size_t size) noexcept;

/// Lets the system take the pages of this memory when it needs them; the memory stays, its content
/// is lost by then. Writing to it takes them back.
void LendPages(void* memory, std::size_t size) noexcept;

}  // namespace zr
