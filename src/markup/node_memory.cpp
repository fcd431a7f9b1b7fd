#include "markup/node_memory.h"

#include <algorithm>
#include <cstdlib>
#include <new>
#include <utility>

#include "markup/name.h"
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

constinit thread_local NodePool::ThreadMemory NodePool::thread{nullptr, 0, nullptr, 0};

namespace {

constinit SpareChunks spareChunks;

// Each piece is preceded by its chunk, null for a piece from the heap; both lie so that the piece
// is aligned.
constexpr std::size_t kAlign = alignof(std::max_align_t);
constexpr std::size_t kLead = sizeof(void*);
constexpr std::size_t kHead = 3 * kAlign;  // of a chunk, with the first piece's lead

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
    NodeStore::Drop(chunk, 1);
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

void NodePool::MarkCut(void* piece, std::size_t size) noexcept {
  MarkUsed(static_cast<char*>(piece) - kLead, size + kLead);
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
  if (pool == nullptr) return AllocateFromHeap(size);
  if (size > NodePool::kLargestPiece) return pool->CutAlone(size);
  const std::size_t step = NodePool::PieceSize(size);
  void*& freed = pool->freed_[step / NodePool::kGrain];
  if (freed != nullptr) {
    void* const piece = freed;
    freed = LinkOf(piece);
    MarkUsed(piece, size);
    return piece;
  }
  pool->Reserve(step);
  return pool->Cut(size);
}

void FreeNodeMemory(void* piece, std::size_t size) noexcept {
  if (piece == nullptr) return;
  auto* const chunk = static_cast<NodePool::Chunk*>(LeadOf(piece));
  if (chunk == nullptr) {
    ::operator delete(static_cast<char*>(piece) - kAlign);
    return;
  }
  MarkUnused(piece, size);
  NodePool* const pool = NodePool::thread.pool;
  if (pool == nullptr || pool->store_ != chunk->store) {
    NodePool::Return(chunk);
    return;
  }
  if (size > NodePool::kLargestPiece) {
    if (pool->store_->IsOpen()) pool->store_->LetGo(chunk);
    NodePool::Return(chunk);
    return;
  }
  void*& freed = pool->freed_[NodePool::PieceSize(size) / NodePool::kGrain];
  LinkOf(piece) = freed;
  freed = piece;
}

NodePool::Scope::Scope(NodePool& pool) : outer_(std::exchange(thread.pool, &pool)) {}

NodePool::Scope::~Scope() { thread.pool = outer_; }

NodePool::~NodePool() {
  Retire();
  {
    const NodeFreeing freeing;
    for (void* piece : freed_) {
      while (piece != nullptr) {
        void* const next = LinkOf(piece);
        Return(static_cast<Chunk*>(LeadOf(piece)));
        piece = next;
      }
    }
  }
  if (taken_ && store_->IsOpen()) {
    store_->state_.store(NodeStore::State::kWhole, std::memory_order_relaxed);
    store_->LetGoEmpty();
  } else {
    store_->LetGoAll();
  }
  store_->Release(1);
}

void NodePool::KeepWhole() noexcept {
  if (chunk_ == nullptr) store_->state_.store(NodeStore::State::kOpen, std::memory_order_relaxed);
}

bool NodePool::TakeWhole() noexcept {
  taken_ = store_->IsOpen();
  return taken_;
}

void NodePool::PartOpen() noexcept {
  if (thread.pool != nullptr && thread.pool->store_->IsOpen()) thread.pool->store_->LetGoAll();
}

void NodePool::Keep(NameText* name) noexcept {
  name->next = store_->names_;
  store_->names_ = name;
}

NodeFreeing::NodeFreeing() noexcept { ++NodePool::thread.freeings; }

NodeFreeing::~NodeFreeing() {
  NodePool::ThreadMemory& thread = NodePool::thread;
  if (--thread.freeings == 0) thread.CountOff();
}

NodeStore& NodeStore::Of(const void* piece) noexcept {
  return *static_cast<Chunk*>(LeadOf(const_cast<void*>(piece)))->store;
}

NodeStore::~NodeStore() {
  while (names_ != nullptr) delete std::exchange(names_, names_->next);
}

void NodeStore::Release(std::uint64_t count) noexcept {
  if (users_.fetch_sub(count, std::memory_order_acq_rel) == count) delete this;
}

void NodeStore::Free(Chunk* chunk, std::uint64_t pieces) noexcept {
  if ((pieces & kClass) != 0)
    spareChunks.Keep(chunk, static_cast<unsigned>(pieces >> kClassShift) - 1);
  else
    std::free(chunk);
}

void NodeStore::Drop(Chunk* chunk, std::uint64_t count) noexcept {
  const std::uint64_t left = chunk->pieces.fetch_sub(count, std::memory_order_acq_rel) - count;
  if ((left & ~kClass) != 0) return;
  NodeStore* const store = chunk->store;
  Free(chunk, left);
  store->Release(1);
}

NodeStore::Chunk* NodeStore::MakeChunk(void* memory, std::uint64_t pieces) noexcept {
  users_.fetch_add(1, std::memory_order_relaxed);
  if (!IsOpen()) return new (memory) Chunk{{pieces}, this, nullptr, nullptr};
  auto* const chunk = new (memory) Chunk{{pieces + kHeld}, this, held_, nullptr};
  if (held_ != nullptr) held_->previous = chunk;
  held_ = chunk;
  return chunk;
}

void NodeStore::LetGo(Chunk* chunk) noexcept {
  (chunk->previous != nullptr ? chunk->previous->next : held_) = chunk->next;
  if (chunk->next != nullptr) chunk->next->previous = chunk->previous;
  Drop(chunk, kHeld);
}

void NodeStore::LetGoAll() noexcept {
  state_.store(State::kParted, std::memory_order_relaxed);
  for (Chunk* chunk = std::exchange(held_, nullptr); chunk != nullptr;)
    Drop(std::exchange(chunk, chunk->next), kHeld);
}

void NodeStore::LetGoEmpty() noexcept {
  for (Chunk* chunk = held_; chunk != nullptr;) {
    Chunk* const next = chunk->next;
    if ((chunk->pieces.load(std::memory_order_relaxed) & ~kClass) == kHeld) LetGo(chunk);
    chunk = next;
  }
}

void NodeStore::Part() noexcept {
  const State state = state_.load(std::memory_order_relaxed);
  if (state == State::kParted) return;
  // What the parse itself does to its nodes goes through its pool.
  NodePool* const pool = NodePool::thread.pool;
  if (state == State::kOpen && pool != nullptr && pool->store_ == this) return;
  LetGoAll();
}

void NodeStore::FreeAllBut(const void* piece) noexcept {
  NodePool::thread.CountOff();
  Chunk* const kept =
      piece != nullptr ? static_cast<Chunk*>(LeadOf(const_cast<void*>(piece))) : nullptr;
  std::uint64_t freed = 0;
  for (Chunk* chunk = std::exchange(held_, nullptr); chunk != nullptr;) {
    Chunk* const next = chunk->next;
    const std::uint64_t pieces = chunk->pieces.load(std::memory_order_acquire);
    if (chunk == kept) {
      chunk->pieces.store((pieces & kClass) | 1, std::memory_order_relaxed);
    } else {
      Free(chunk, pieces);
      ++freed;
    }
    chunk = next;
  }
  state_.store(State::kParted, std::memory_order_relaxed);
  if (freed != 0) Release(freed);
}

void NodePool::Retire() noexcept {
  if (chunk_ != nullptr)
    NodeStore::Drop(std::exchange(chunk_, nullptr), NodeStore::kInUse - std::exchange(cut_, 0));
}

namespace {

// The chunks of a large document lie in large pages: fetching small ones one by one took a third of
// the time to read ten megabytes.
void* AllocateChunk(std::size_t size, unsigned chunkClass) {
  void* memory = chunkClass != SpareChunks::kClasses ? spareChunks.Take(chunkClass) : nullptr;
  if (memory == nullptr && size == kLargePage) {
    memory = std::aligned_alloc(kLargePage, size);
    if (memory != nullptr) PreferLargePages(memory, size);
  } else if (memory == nullptr) {
    memory = std::malloc(size);
  }
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

}  // namespace

void NodePool::Renew(std::size_t size) {
  const std::size_t room = std::max(chunkSize_, size + kHead);
  chunkSize_ = std::min(chunkSize_ * 2, kLargestChunk);
  const unsigned chunkClass = SpareChunks::ClassOf(room);
  char* const memory = static_cast<char*>(AllocateChunk(room, chunkClass));
  Retire();
  std::uint64_t pieces = NodeStore::kInUse;
  if (chunkClass != SpareChunks::kClasses)
    pieces |= (std::uint64_t{chunkClass} + 1) << NodeStore::kClassShift;
  chunk_ = store_->MakeChunk(memory, pieces);
  // The first piece's lead lies in the block before it, behind the head of the chunk.
  static_assert(sizeof(Chunk) + kLead <= kHead);
  next_ = memory + kHead;
  end_ = memory + room;
  MarkUnused(memory + sizeof(Chunk), room - sizeof(Chunk));
}

void* NodePool::CutAlone(std::size_t size) {
  char* const memory = static_cast<char*>(AllocateChunk(kHead + size, SpareChunks::kClasses));
  void* const piece = memory + kHead;
  LeadOf(piece) = store_->MakeChunk(memory, 1);
  return piece;
}

}  // namespace zr
