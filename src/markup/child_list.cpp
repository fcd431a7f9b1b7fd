#include "markup/child_list.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <new>
#include <stdexcept>

#include "markup/complex_element.h"
#include "markup/graveyard.h"
#include "markup/node_memory.h"

namespace {

constexpr std::size_t kSlot = sizeof(void*);

}  // namespace

void ZrChildList::Free(Block* block) noexcept {
  // In a graveyard the capacity is gone; the slots that were in use are known to be there.
  zr::FreeNodeMemory(block, sizeof(Block) + block->end * kSlot);
}

void ZrChildList::PushFront(ZrXMLComplexElement* child) {
  if (block_ == nullptr || block_->begin == 0) MakeRoom(true);
  block_->slots()[--block_->begin] = child;
}

void ZrChildList::Erase(std::size_t index) {
  ZrXMLComplexElement** const first = block_->slots() + block_->begin;
  const std::size_t count = size();
  if (index < count / 2) {
    std::memmove(first + 1, first, index * kSlot);
    ++block_->begin;
  } else {
    std::memmove(first + index, first + index + 1, (count - index - 1) * kSlot);
    --block_->end;
  }
}

std::size_t ZrChildList::Find(const ZrXMLComplexElement* child) const {
  const std::size_t count = size();
  for (std::size_t front = 0; front * 2 < count; ++front) {
    if ((*this)[front] == child) return front;
    const std::size_t back = count - 1 - front;
    if ((*this)[back] == child) return back;
  }
  return kNotFound;
}

void ZrChildList::MakeRoom(bool atFront) {
  if (block_ == nullptr) {
    constexpr std::uint32_t kFirst = 3;
    const std::uint32_t begin = atFront ? kFirst : 0;
    block_ =
        new (zr::AllocateNodeMemory(sizeof(Block) + kFirst * kSlot)) Block{begin, begin, {kFirst}};
    return;
  }
  const std::size_t count = size();
  const std::size_t room = block_->capacity();
  // Slots that became free at the other end are used first, when they are many enough to pay for
  // the move; else the block doubles.
  const bool shift = room - count > room / 2;
  const std::size_t grown = shift ? room : room * 2 + 1;
  if (grown > std::numeric_limits<std::uint32_t>::max()) throw std::length_error("too many nodes");
  // A list that only ever grew at one end has all its room there; any other gets room at both.
  const bool oneEnd = atFront ? block_->end == block_->capacity() : block_->begin == 0;
  const std::size_t begin =
      oneEnd ? (atFront ? grown - count : 0) : (grown - count + (atFront ? 1 : 0)) / 2;
  Block* target = block_;
  if (!shift) {
    target = new (zr::AllocateNodeMemory(sizeof(Block) + grown * kSlot)) Block{0, 0, {grown}};
  }
  std::memmove(target->slots() + begin, block_->slots() + block_->begin, count * kSlot);
  if (!shift) Free(block_);
  target->begin = static_cast<std::uint32_t>(begin);
  target->end = static_cast<std::uint32_t>(begin + count);
  block_ = target;
}

void ZrChildList::MoveTo(Graveyard& graveyard) noexcept {
  if (block_ == nullptr) return;
  block_->below = graveyard.top_;
  graveyard.top_ = block_;
  block_ = nullptr;
}

void ZrChildList::DestroyAll() noexcept {
  const zr::NodeFreeing freeing;
  Graveyard graveyard;
  MoveTo(graveyard);
  while (graveyard.top_ != nullptr) {
    Block* const block = graveyard.top_;
    if (block->begin == block->end) {
      graveyard.top_ = block->below;
      Free(block);
      continue;
    }
    ZrXMLComplexElement* const child = block->slots()[block->begin++];
    if (child == nullptr) continue;
    // The child's destructor lays its own children on top, so they come next.
    child->link_.graveyard = &graveyard;
    child->flags_ |= ZrXMLComplexElement::kOrphan;
    delete child;
  }
}
