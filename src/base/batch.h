#pragma once
// A batch of work: what one thread took at once and now handles piece by piece. Each piece had
// arrived before the batch began, so what is looked up once for the batch is an answer that each of
// them could have been given alone, and nothing that is kept for a batch is ever stale. What can be
// looked at again more cheaply than it was found may stay for the thread's next batches.

#include <chrono>
#include <cstddef>
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

  /// A thread that goes on with further batches, and has had none for that long, is to Rest() when
  /// IsLeft() said so.
  static constexpr std::chrono::milliseconds kRestAfter{200};

  /// What that owner keeps for the rest of the batch; made without arguments at the first use. The
  /// owner outlives the batch. Its Clear() ends what is known; one that leaves something for the
  /// next batch says so by IsLeft() and ends that by Rest().
  template <class Kept>
  Kept& Of(const void* owner) {
    static const char type = 0;
    for (const Place& place : kept_)
      if (place.owner == owner && place.type == &type)
        return static_cast<Holder<Kept>&>(*place.thing).value;
    auto made = std::make_unique<Holder<Kept>>();
    Kept& value = made->value;
    kept_.push_back({owner, &type, std::move(made)});
    return value;
  }

  /// Empties all that is kept: code that may have changed the world has run, or the next batch of
  /// the same thread begins.
  void Forget() {
    if (kept_.size() > kMostPlaces) return kept_.clear();
    for (const Place& place : kept_) place.thing->Empty();
  }
  /// Whether anything was left by that for the next batch.
  bool IsLeft() const {
    for (const Place& place : kept_)
      if (place.thing->IsLeft()) return true;
    return false;
  }
  /// Ends that too.
  void Rest() {
    for (const Place& place : kept_) place.thing->Rest();
  }

 private:
  static constexpr std::size_t kMostPlaces = 16;  // owners come and go

  struct HolderBase {
    virtual ~HolderBase() = default;
    virtual void Empty() = 0;
    virtual bool IsLeft() const { return false; }
    virtual void Rest() {}
  };
  template <class Kept>
  struct Holder : HolderBase {
    Kept value;
    void Empty() override { value.Clear(); }
    bool IsLeft() const override {
      if constexpr (requires { value.IsLeft(); }) return value.IsLeft();
      return false;
    }
    void Rest() override {
      if constexpr (requires { value.Rest(); }) value.Rest();
    }
  };
  struct Place {
    const void* owner;
    const void* type;
    std::unique_ptr<HolderBase> thing;
  };

  ZrBatch* const outer_;
  std::vector<Place> kept_;
};
