#pragma once
// The children of one element: an ordered sequence of pointers that grows at both ends. A list
// takes one pointer in its element and nothing more while it is empty; most elements of a document
// are leaves. Not for use outside the node classes.

#include <cstddef>
#include <cstdint>

class ZrXMLComplexElement;

class ZrChildList {
 public:
  static constexpr std::size_t kNotFound = static_cast<std::size_t>(-1);

  /// Elements that wait for their destruction, see DestroyAll().
  class Graveyard;

  ZrChildList() = default;
  ZrChildList(const ZrChildList&) = delete;
  ZrChildList& operator=(const ZrChildList&) = delete;
  /// Frees the sequence, not the elements.
  ~ZrChildList() {
    if (block_ != nullptr) Free(block_);
  }

  std::size_t size() const { return block_ != nullptr ? block_->end - block_->begin : 0; }
  bool empty() const { return size() == 0; }
  ZrXMLComplexElement* operator[](std::size_t index) const {
    return block_->slots()[block_->begin + index];
  }
  ZrXMLComplexElement* const* begin() const {
    return block_ != nullptr ? block_->slots() + block_->begin : nullptr;
  }
  ZrXMLComplexElement* const* end() const {
    return block_ != nullptr ? block_->slots() + block_->end : nullptr;
  }

  /// Both are amortised constant time.
  void PushBack(ZrXMLComplexElement* child) {
    if (block_ == nullptr || block_->end == block_->capacity()) MakeRoom(false);
    block_->slots()[block_->end++] = child;
  }
  void PushFront(ZrXMLComplexElement* child);
  void Put(std::size_t index, ZrXMLComplexElement* child) {
    block_->slots()[block_->begin + index] = child;
  }
  /// Takes the entry out; constant time at both ends.
  void Erase(std::size_t index);
  /// Position of the child, kNotFound when it is none. Searches from both ends at once, so that
  /// taking children out from either end stays linear in all.
  std::size_t Find(const ZrXMLComplexElement* child) const;

  /// Destroys every element below this list in document order, an element always before its
  /// children, without recursion whatever the depth. Allocates nothing.
  void DestroyAll() noexcept;
  /// Hands the elements over to a destruction that is under way further up.
  void MoveTo(Graveyard& graveyard) noexcept;

 private:
  struct Block {
    std::uint32_t begin;
    std::uint32_t end;
    union {
      std::size_t slotCount;  // in use
      Block* below;           // in a graveyard, where nothing is added any more
    };

    std::size_t capacity() const { return slotCount; }
    ZrXMLComplexElement** slots() { return reinterpret_cast<ZrXMLComplexElement**>(this + 1); }
  };

  void MakeRoom(bool atFront);
  static void Free(Block* block) noexcept;

  Block* block_ = nullptr;
};
