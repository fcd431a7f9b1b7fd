#pragma once
// How much memory all peers together may occupy. Whoever keeps bytes for a peer (received bytes,
// bodies, queued answers, the output of programs) holds a share of the budget of that size. The
// budget refuses nothing: it says when it is exceeded, and its owner then stops taking more in
// until there is room again.

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <utility>

/// Threads: any. Held in shared ownership by its owner and by every share, so that shares may
/// outlive the owner.
class ZrMemoryBudget {
 public:
  /// The limit is in bytes. `onRoom` (may be empty) is called on the releasing thread, with
  /// whatever locks that holds, each time the use falls from above the limit to it or below: it may
  /// only wake somebody.
  explicit ZrMemoryBudget(std::uint64_t limit, std::function<void()> onRoom = {});

  /// A quarter of the machine's memory, at most 1 GiB.
  static std::uint64_t DefaultLimit();

  std::uint64_t Limit() const { return limit_; }
  std::uint64_t Used() const { return used_.load(std::memory_order_relaxed); }
  bool Exceeded() const { return Used() > limit_; }

 private:
  friend class ZrMemoryShare;
  void Add(std::uint64_t bytes) { used_.fetch_add(bytes, std::memory_order_relaxed); }
  void Release(std::uint64_t bytes);

  const std::uint64_t limit_;
  const std::function<void()> onRoom_;
  std::atomic<std::uint64_t> used_{0};
};

/// Some bytes of a budget, given back by the destructor. Threads: one at a time.
class ZrMemoryShare {
 public:
  /// Without a budget it counts for nobody.
  explicit ZrMemoryShare(std::shared_ptr<ZrMemoryBudget> budget = nullptr)
      : budget_(std::move(budget)) {}
  ZrMemoryShare(ZrMemoryShare&& other) noexcept
      : budget_(std::move(other.budget_)), bytes_(std::exchange(other.bytes_, 0)) {}
  ZrMemoryShare& operator=(ZrMemoryShare&& other) noexcept;
  ~ZrMemoryShare() { Set(0); }

  /// The share is that large from now on, in bytes.
  void Set(std::uint64_t bytes);
  /// The same in whole pages: small traffic does not touch the budget.
  void SetPages(std::uint64_t bytes) { Set(bytes & ~std::uint64_t{4095}); }
  std::uint64_t Bytes() const { return bytes_; }

 private:
  std::shared_ptr<ZrMemoryBudget> budget_;
  std::uint64_t bytes_ = 0;
};
