#pragma once
// A table of things by number, chained through the things themselves: entering and taking out one
// allocates nothing. Private to the registry's sources.

#include <cstddef>
#include <cstdint>
#include <vector>

/// Things have the members `number`, which is unique and stays, and `nextListed`, which is the
/// table's while they stand in it. They belong to the caller. Not locked.
template <class Thing>
class ZrNumberTable {
 public:
  Thing* Find(std::int64_t number) const noexcept {
    if (size_ == 0) return nullptr;
    Thing* thing = chains_[Place(number)];
    while (thing && thing->number != number) thing = thing->nextListed;
    return thing;
  }
  /// Throws std::bad_alloc, and the thing is not entered then.
  void Enter(Thing& thing) {
    if (size_ >= chains_.size()) Grow();
    Thing*& chain = chains_[Place(thing.number)];
    thing.nextListed = chain;
    chain = &thing;
    ++size_;
  }
  /// The thing is in the table.
  void TakeOut(Thing& thing) noexcept {
    Thing** place = &chains_[Place(thing.number)];
    while (*place != &thing) place = &(*place)->nextListed;
    *place = thing.nextListed;
    thing.nextListed = nullptr;
    --size_;
  }
  std::size_t Size() const noexcept { return size_; }
  /// Any of them, nothing when there is none.
  Thing* Any() const noexcept {
    for (Thing* const chain : chains_)
      if (chain) return chain;
    return nullptr;
  }

 private:
  static constexpr std::size_t kLeastChains = 64;

  // Numbers follow each other closely: a multiplication spreads them over all bits.
  std::size_t Place(std::int64_t number) const noexcept {
    const std::uint64_t spread = static_cast<std::uint64_t>(number) * 0x9E3779B97F4A7C15U;
    return static_cast<std::size_t>(spread >> 32) & (chains_.size() - 1);
  }
  void Grow() {
    std::vector<Thing*> old(chains_.empty() ? kLeastChains : 2 * chains_.size());
    old.swap(chains_);
    for (Thing* thing : old) {
      while (thing) {
        Thing* const next = thing->nextListed;
        Thing*& chain = chains_[Place(thing->number)];
        thing->nextListed = chain;
        chain = thing;
        thing = next;
      }
    }
  }

  std::vector<Thing*> chains_;  // a power of two of them
  std::size_t size_ = 0;
};
