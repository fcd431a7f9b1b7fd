#pragma once
// Memory of nodes, attributes and what belongs to them. A document is read into thousands of small
// pieces that mostly live and die together; during a parse they are cut from chunks, one behind the
// other, and a chunk goes back when the last piece in it was freed. Chunks grow with the document,
// to 2 MiB at most. Pieces made at other times come from the heap. Either kind may be freed on any
// thread, at any time and in any order; a piece in front says where it belongs.

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

#include "platform/pages.h"

namespace zr {

/// Memory aligned for every ordinary type: from the pool whose Scope is open on this thread, else
/// from the heap. Throws std::bad_alloc.
void* AllocateNodeMemory(std::size_t size);
/// Gives back a piece with the size it was allocated with; null does nothing.
void FreeNodeMemory(void* piece, std::size_t size) noexcept;

/// The chunks of one parse. The pool may go before the pieces cut from it.
class NodePool {
 public:
  NodePool() = default;
  NodePool(const NodePool&) = delete;
  NodePool& operator=(const NodePool&) = delete;
  ~NodePool();

  /// While it lives, AllocateNodeMemory() of this thread uses the pool, and pieces freed by this
  /// thread are cut again.
  class Scope {
   public:
    explicit Scope(NodePool& pool);
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;
    ~Scope();

   private:
    NodePool* const outer_;
  };

 private:
  friend void* AllocateNodeMemory(std::size_t size);
  friend void FreeNodeMemory(void* piece, std::size_t size) noexcept;

  struct Chunk {
    // Those not yet freed, and kInUse while the pool cuts from it; above them kLarge or nothing.
    std::atomic<std::uint64_t> pieces;
  };
  static constexpr std::uint64_t kInUse = std::uint64_t{1} << 32;
  static constexpr std::uint64_t kLarge = std::uint64_t{1} << 48;  // of kLargePage bytes
  static constexpr std::size_t kFirstChunk = std::size_t{4} * 1024;
  static constexpr std::size_t kLargestChunk = kLargePage;
  static constexpr std::size_t kLargestPiece = 1024;  // larger ones come from the heap
  static constexpr std::size_t kGrain = alignof(std::max_align_t);

  friend class NodeFreeing;
  struct ThreadMemory;
  static thread_local constinit ThreadMemory thread;

  static void Drop(Chunk* chunk, std::uint64_t count) noexcept;
  static void Return(Chunk* chunk) noexcept;
  [[gnu::noinline]] static void ReturnFirst(Chunk* chunk) noexcept;
  void Retire() noexcept;
  [[gnu::noinline]] void Renew(std::size_t size);

  Chunk* chunk_ = nullptr;
  char* next_ = nullptr;
  char* end_ = nullptr;
  std::uint64_t cut_ = 0;  // pieces cut from chunk_
  std::size_t chunkSize_ = kFirstChunk;
  // Freed pieces by their size in grains, linked through their first bytes. They still count in
  // their chunks.
  std::array<void*, kLargestPiece / kGrain + 2> freed_{};
};

/// While it lives, the pieces that this thread frees are counted off their chunks many at a time:
/// worth it where a whole tree is destroyed.
class NodeFreeing {
 public:
  NodeFreeing() noexcept;
  NodeFreeing(const NodeFreeing&) = delete;
  NodeFreeing& operator=(const NodeFreeing&) = delete;
  ~NodeFreeing();
};

}  // namespace zr

/// Base that puts a class into node memory.
class ZrInNodeMemory {
 public:
  static void* operator new(std::size_t size) { return zr::AllocateNodeMemory(size); }
  static void* operator new(std::size_t, void* place) noexcept { return place; }
  static void operator delete(void* piece, std::size_t size) noexcept {
    zr::FreeNodeMemory(piece, size);
  }
};
