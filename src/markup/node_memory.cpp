#include "markup/node_memory.h"

#include <algorithm>
#include <cstdlib>
#include <new>
#include <utility>

#include "markup/spare_chunks.h"

#if defined(__SANITIZE_ADDRESS__)
#define ZR_POISONS 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define ZR_POISONS 1
#endif
#endif
#ifdef ZR_POISONS
#include <sanitizer/asan_interface.h>
#endif

namespace zr {

// Trivial through and through: nothing to destroy when a thread ends or the library is unloaded.
struct NodePool::ThreadMemory {
  NodePool* pool;  // whose Scope is open
  unsigned freeings;
  // Inside a NodeFreeing: the chunk of the pieces freed last, and how many are still to be counted
  // off.
  Chunk* chunk;
  std::uint64_t count;

  void CountOff() {
    if (chunk != nullptr) Drop(chunk, count);
    chunk = nullptr;
    count = 0;
  }
};

constinit thread_local NodePool::ThreadMemory NodePool::thread{nullptr, 0, nullptr, 0};

namespace {

constinit SpareChunks spareChunks;

// Each piece is preceded by its chunk, null for a piece from the heap; both lie so that the piece
// is aligned.
constexpr std::size_t kAlign = alignof(std::max_align_t);
constexpr std::size_t kLead = sizeof(void*);

constexpr std::size_t Rounded(std::size_t size) {
  return (size + kLead + kAlign - 1) & ~(kAlign - 1);
}

void*& LeadOf(void* piece) { return static_cast<void**>(piece)[-1]; }

// Tells the address sanitizer which bytes of a chunk are in use, so that it watches pieces as it
// watches the heap.
void MarkUsed([[maybe_unused]] void* bytes, [[maybe_unused]] std::size_t size) {
#ifdef ZR_POISONS
  ASAN_UNPOISON_MEMORY_REGION(bytes, size);
#endif
}

void MarkUnused([[maybe_unused]] void* bytes, [[maybe_unused]] std::size_t size) {
#ifdef ZR_POISONS
  ASAN_POISON_MEMORY_REGION(bytes, size);
#endif
}

// A freed piece keeps the link to the next one of its size.
void*& LinkOf(void* piece) {
  MarkUsed(piece, sizeof(void*));
  return *static_cast<void**>(piece);
}

}  // namespace

// A piece of another chunk than the one before, or one that is freed on its own.
void NodePool::ReturnFirst(Chunk* chunk) noexcept {
  if (thread.freeings == 0) {
    Drop(chunk, 1);
    return;
  }
  thread.CountOff();
  thread.chunk = chunk;
  thread.count = 1;
}

inline void NodePool::Return(Chunk* chunk) noexcept {
  if (thread.chunk != chunk)
    ReturnFirst(chunk);
  else
    ++thread.count;
}

namespace {

[[gnu::noinline]] void* AllocateFromHeap(std::size_t size) {
  char* const memory = static_cast<char*>(::operator new(size + kAlign));
  void* const piece = memory + kAlign;
  LeadOf(piece) = nullptr;
  return piece;
}

}  // namespace

void* AllocateNodeMemory(std::size_t size) {
  NodePool* const pool = NodePool::thread.pool;
  if (pool == nullptr || size > NodePool::kLargestPiece) return AllocateFromHeap(size);
  const std::size_t step = Rounded(size);
  void*& freed = pool->freed_[step / NodePool::kGrain];
  if (freed != nullptr) {
    void* const piece = freed;
    freed = LinkOf(piece);
    MarkUsed(piece, size);
    return piece;
  }
  if (static_cast<std::size_t>(pool->end_ - pool->next_) < step) pool->Renew(step);
  void* const piece = pool->next_;
  MarkUsed(static_cast<char*>(piece) - kLead, size + kLead);
  LeadOf(piece) = pool->chunk_;
  pool->next_ += step;
  ++pool->cut_;
  return piece;
}

void FreeNodeMemory(void* piece, std::size_t size) noexcept {
  if (piece == nullptr) return;
  auto* const chunk = static_cast<NodePool::Chunk*>(LeadOf(piece));
  if (chunk == nullptr) {
    ::operator delete(static_cast<char*>(piece) - kAlign);
    return;
  }
  MarkUnused(piece, size);
  NodePool::ThreadMemory& thread = NodePool::thread;
  if (thread.pool == nullptr) {
    NodePool::Return(chunk);
    return;
  }
  void*& freed = thread.pool->freed_[Rounded(size) / NodePool::kGrain];
  LinkOf(piece) = freed;
  freed = piece;
}

NodePool::Scope::Scope(NodePool& pool) : outer_(std::exchange(thread.pool, &pool)) {}

NodePool::Scope::~Scope() { thread.pool = outer_; }

NodePool::~NodePool() {
  Retire();
  const NodeFreeing freeing;
  for (void* piece : freed_) {
    while (piece != nullptr) {
      void* const next = LinkOf(piece);
      Return(static_cast<Chunk*>(LeadOf(piece)));
      piece = next;
    }
  }
}

NodeFreeing::NodeFreeing() noexcept { ++NodePool::thread.freeings; }

NodeFreeing::~NodeFreeing() {
  NodePool::ThreadMemory& thread = NodePool::thread;
  if (--thread.freeings == 0) thread.CountOff();
}

void NodePool::Drop(Chunk* chunk, std::uint64_t count) noexcept {
  const std::uint64_t left = chunk->pieces.fetch_sub(count, std::memory_order_acq_rel) - count;
  if (left == kLarge)
    spareChunks.Keep(chunk);
  else if (left == 0)
    std::free(chunk);
}

void NodePool::Retire() noexcept {
  if (chunk_ != nullptr) Drop(std::exchange(chunk_, nullptr), kInUse - std::exchange(cut_, 0));
}

namespace {

// The chunks of a large document lie in large pages: fetching small ones one by one took a third of
// the time to read ten megabytes.
void* AllocateChunk(std::size_t size, bool large) {
  void* memory = large ? spareChunks.Take() : std::malloc(size);
  if (large && memory == nullptr) {
    memory = std::aligned_alloc(kLargePage, size);
    if (memory != nullptr) PreferLargePages(memory, size);
  }
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

}  // namespace

void NodePool::Renew(std::size_t size) {
  static_assert(sizeof(Chunk) + kLead <= kAlign);
  const std::size_t room = std::max(chunkSize_, size + kAlign);
  chunkSize_ = std::min(chunkSize_ * 2, kLargestChunk);
  const bool large = room == kLargePage;
  char* const memory = static_cast<char*>(AllocateChunk(room, large));
  Retire();
  chunk_ = new (memory) Chunk{{kInUse + (large ? kLarge : 0)}};
  // The first piece's lead lies in the first aligned block, behind the chunk's count.
  next_ = memory + kAlign;
  end_ = memory + room;
  MarkUnused(memory + sizeof(Chunk), room - sizeof(Chunk));
}

}  // namespace zr
