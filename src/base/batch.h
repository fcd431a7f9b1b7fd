#pragma once
// A batch of work: what one thread took at once and now handles piece by piece. Each piece had
// arrived before the batch began, so what is looked up once for the batch is an answer that each of
// them could have been given alone, and nothing that is kept for a batch is ever stale.

#include <memory>
#include <utility>
#include <vector>

/// Stands on the stack of the thread that does the work, while it does it. Threads: one.
class ZrBatch {
 public:
  ZrBatch() noexcept;
  ~ZrBatch();
  ZrBatch(const ZrBatch&) = delete;
  ZrBatch& operator=(const ZrBatch&) = delete;

  /// The calling thread's batch, nothing outside of any.
  static ZrBatch* Current() noexcept;

  /// What that owner keeps for the rest of the batch; made without arguments at the first use. The
  /// owner outlives the batch, and always asks for the same type.
  template <class Kept>
  Kept& Of(const void* owner) {
    for (const auto& [kept, thing] : kept_)
      if (kept == owner) return static_cast<Holder<Kept>&>(*thing).value;
    auto made = std::make_unique<Holder<Kept>>();
    Kept& value = made->value;
    kept_.emplace_back(owner, std::move(made));
    return value;
  }

  /// Drops all that is kept: code that may have changed the world has run.
  void Forget() { kept_.clear(); }

 private:
  struct HolderBase {
    virtual ~HolderBase() = default;
  };
  template <class Kept>
  struct Holder : HolderBase {
    Kept value;
  };

  ZrBatch* const outer_;
  std::vector<std::pair<const void*, std::unique_ptr<HolderBase>>> kept_;
};
