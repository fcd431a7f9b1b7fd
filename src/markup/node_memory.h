#pragma once
// Memory of nodes, attributes and what belongs to them. A document is read into thousands of small
// pieces that mostly live and die together; during a parse they are cut from chunks, one behind the
// other, and a chunk goes back when the last piece in it was freed. Chunks grow with the document,
// to 2 MiB at most. Pieces made at other times come from the heap. Either kind may be freed on any
// thread, at any time and in any order; a word in front says where it belongs.
//
// Most trees are read, looked at and dropped. While nothing was made, taken out or changed in one,
// its chunks hold nothing else: they go back as they are, and no node in them is visited. The
// first change ends that for the tree, and from then on its pieces are counted off one by one.

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

struct NameText;

/// What one parse takes from the heap: its chunks, and the names that the nodes in them bear. It
/// goes with the last chunk. Threads: any, but for operations that say otherwise.
class NodeStore {
 public:
  NodeStore(const NodeStore&) = delete;
  NodeStore& operator=(const NodeStore&) = delete;

  /// The store of a piece that was cut from a chunk.
  static NodeStore& Of(const void* piece) noexcept;

  /// A piece of this store is about to be made, freed or handed on otherwise than by the parse: the
  /// store is no longer one with its tree. The thread of the tree.
  void Part() noexcept;
  /// Whether it is one with its tree.
  bool IsWhole() const noexcept { return state_.load(std::memory_order_relaxed) == State::kWhole; }
  /// The tree of the store goes, and the store is still one with it: frees everything but that
  /// piece, which is of this store or null; freeing it ends the store. Only while IsWhole(); the
  /// thread of the tree.
  void FreeAllBut(const void* piece) noexcept;

 private:
  bool IsOpen() const noexcept { return state_.load(std::memory_order_relaxed) == State::kOpen; }

  friend class NodePool;
  friend void* AllocateNodeMemory(std::size_t size);
  friend void FreeNodeMemory(void* piece, std::size_t size) noexcept;

  struct Chunk {
    // Those not yet freed, with kInUse while the pool cuts from it and kHeld as long as the store
    // is not parted; above them, in kClass, one more
    // than its class among the spare chunks, nothing for one of another size.
    std::atomic<std::uint64_t> pieces;
    NodeStore* store;
    Chunk* next;  // of those held
    Chunk* previous;
  };
  static constexpr std::uint64_t kInUse = std::uint64_t{1} << 32;
  static constexpr std::uint64_t kHeld = std::uint64_t{1} << 40;
  static constexpr unsigned kClassShift = 48;
  static constexpr std::uint64_t kClass = ~std::uint64_t{0} << kClassShift;

  enum class State {
    kParted,
    kOpen,   // the parse goes on, and will perhaps be kept as one
    kWhole,  // everything in it belongs to one tree
  };

  NodeStore() = default;
  ~NodeStore();
  static void Drop(Chunk* chunk, std::uint64_t count) noexcept;
  static void Free(Chunk* chunk, std::uint64_t pieces) noexcept;
  Chunk* MakeChunk(void* memory, std::uint64_t pieces) noexcept;
  void LetGo(Chunk* chunk) noexcept;
  void LetGoAll() noexcept;
  void LetGoEmpty() noexcept;
  void Release(std::uint64_t count) noexcept;

  std::atomic<State> state_{State::kParted};
  std::atomic<std::uint64_t> users_{1};  // its chunks, and the pool
  // All chunks until it is parted: of the thread of the pool, then of the tree.
  Chunk* held_ = nullptr;
  NameText* names_ = nullptr;  // of the pool's thread
};

/// Cuts the pieces of one parse, which is on one thread. The pool may go before the pieces.
class NodePool {
  using Chunk = NodeStore::Chunk;
  static constexpr std::size_t kGrain = alignof(std::max_align_t);

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

  /// Whether a pool's Scope is open on this thread.
  static bool IsOpen() noexcept { return thread.pool != nullptr; }
  /// What is made now may belong to more than one tree, or keep something outside of the store:
  /// the open pool's store is parted. Nothing without one.
  static void PartOpen() noexcept;

  /// Before the parse, of a caller that will own all that it makes: the store is to be one with the
  /// tree.
  void KeepWhole() noexcept;
  /// After it: whether the store is one with the tree, whose top then says so to FreeAllBut() when
  /// it goes. What else was made goes before the pool.
  bool TakeWhole() noexcept;
  /// For the parser: makes room for pieces of so many bytes, each counted with PieceSize(). Throws
  /// std::bad_alloc.
  void Reserve(std::size_t size) {
    if (static_cast<std::size_t>(end_ - next_) < size) Renew(size);
  }
  /// A piece where room was made for it.
  void* Cut(std::size_t size) noexcept {
    void* const piece = next_;
    MarkCut(piece, size);
    static_cast<Chunk**>(piece)[-1] = chunk_;
    next_ += PieceSize(size);
    ++cut_;
    return piece;
  }
  /// What a piece takes.
  static constexpr std::size_t PieceSize(std::size_t size) {
    return (size + sizeof(void*) + kGrain - 1) & ~(kGrain - 1);
  }
  static constexpr std::size_t kLargestPiece = 1024;  // larger ones have chunks of their own

  /// Takes over the name, for as long as there are pieces.
  void Keep(NameText* name) noexcept;

 private:
  friend class NodeStore;
  friend void* AllocateNodeMemory(std::size_t size);
  friend void FreeNodeMemory(void* piece, std::size_t size) noexcept;

  static constexpr std::size_t kFirstChunk = std::size_t{4} * 1024;
  static constexpr std::size_t kLargestChunk = kLargePage;

  friend class NodeFreeing;
  struct ThreadMemory {
    NodePool* pool;  // whose Scope is open
    unsigned freeings;
    // Inside a NodeFreeing: the chunk of the pieces freed last, and how many are still to be
    // counted off.
    Chunk* chunk;
    std::uint64_t count;

    void CountOff() noexcept {
      if (chunk != nullptr) NodeStore::Drop(chunk, count);
      chunk = nullptr;
      count = 0;
    }
  };
  // Trivial through and through: nothing to destroy when a thread ends or the library is unloaded.
  static thread_local constinit ThreadMemory thread;

  static void MarkCut(void* piece, std::size_t size) noexcept;
  static void Return(Chunk* chunk) noexcept;
  [[gnu::noinline]] static void ReturnFirst(Chunk* chunk) noexcept;
  void* CutAlone(std::size_t size);
  void Retire() noexcept;
  [[gnu::noinline]] void Renew(std::size_t size);

  NodeStore* const store_ = new NodeStore;
  Chunk* chunk_ = nullptr;
  char* next_ = nullptr;
  char* end_ = nullptr;
  std::uint64_t cut_ = 0;  // pieces cut from chunk_
  std::size_t chunkSize_ = kFirstChunk;
  bool taken_ = false;  // by TakeWhole()
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
