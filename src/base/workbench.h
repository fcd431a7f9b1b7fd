#pragma once
// What a thread that handles one message after the other keeps at hand between them: blocks of
// memory that the next message will need again, and objects that are made once. Without it every
// message would take its dozen blocks from the heap and give them back.
//
// A workbench stands on the stack of the thread's loop and goes with it, so nothing outlives the
// loop or the library. Blocks may be released on any thread: one without a workbench gives them to
// the heap.

#include <array>
#include <cstddef>
#include <memory>
#include <new>
#include <utility>
#include <vector>

/// Threads: the one on whose stack it stands; Take() and Release() from any.
class ZrWorkbench {
 public:
  ZrWorkbench() noexcept;
  ~ZrWorkbench();
  ZrWorkbench(const ZrWorkbench&) = delete;
  ZrWorkbench& operator=(const ZrWorkbench&) = delete;

  /// The calling thread's, nothing on a thread that has none.
  static ZrWorkbench* Current() noexcept;

  /// Memory for that many bytes, aligned like that of ::operator new, which throws what this does.
  static void* Take(std::size_t bytes);
  /// Gives back what Take() gave for that many bytes.
  static void Release(void* block, std::size_t bytes) noexcept;

  /// The thread's one object of that type, made without arguments at the first use; it goes with
  /// the workbench.
  template <class Kept>
  Kept& Of() {
    static const char type = 0;
    for (const auto& [kept, thing] : kept_)
      if (kept == &type) return static_cast<Holder<Kept>&>(*thing).value;
    auto made = std::make_unique<Holder<Kept>>();
    Kept& value = made->value;
    kept_.emplace_back(&type, std::move(made));
    return value;
  }

  /// Larger blocks come from the heap each time.
  static constexpr std::size_t kLargestBlock = 2048;

 private:
  static constexpr std::size_t kGrain = 64;      // sizes are rounded up to a multiple of that
  static constexpr std::size_t kMostBlocks = 8;  // kept of each size
  struct Free {
    Free* next;
  };
  struct Shelf {
    Free* first = nullptr;
    std::size_t count = 0;
  };
  struct HolderBase {
    virtual ~HolderBase() = default;
  };
  template <class Kept>
  struct Holder : HolderBase {
    Kept value;
  };

  std::array<Shelf, kLargestBlock / kGrain> shelves_;
  std::vector<std::pair<const void*, std::unique_ptr<HolderBase>>> kept_;
  ZrWorkbench* const outer_;
};

/// For objects of one class: derive from it, and they lie in such blocks.
struct ZrOnWorkbench {
  static void* operator new(std::size_t bytes) { return ZrWorkbench::Take(bytes); }
  static void operator delete(void* block, std::size_t bytes) noexcept {
    ZrWorkbench::Release(block, bytes);
  }
};

/// For containers and control blocks.
template <class Thing>
struct ZrWorkbenchAllocator {
  using value_type = Thing;
  ZrWorkbenchAllocator() = default;
  template <class Other>
  ZrWorkbenchAllocator(const ZrWorkbenchAllocator<Other>&) noexcept {}
  Thing* allocate(std::size_t count) {
    return static_cast<Thing*>(ZrWorkbench::Take(Bytes(count)));
  }
  void deallocate(Thing* things, std::size_t count) noexcept {
    ZrWorkbench::Release(things, Bytes(count));
  }
  /// Of so many things in a row, which may be pointers.
  static constexpr std::size_t Bytes(std::size_t count) {
    return count * sizeof(std::array<Thing, 1>);
  }
  template <class Other>
  bool operator==(const ZrWorkbenchAllocator<Other>&) const noexcept {
    return true;
  }
};
