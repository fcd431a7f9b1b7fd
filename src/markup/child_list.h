#pragma once
// The children of one element: an ordered sequence, linked through the nodes themselves, so that
// putting a node in, taking it out and exchanging it cost the same anywhere among any number of
// siblings. Not for use outside the node classes, but for going through.

#include <cstddef>
#include <cstdint>
#include <iterator>

class ZrXMLComplexElement;

class ZrChildList {
 public:
  /// Goes through the children in order, either way. Good while its node is a child of the list.
  class Iterator {
   public:
    using iterator_category = std::bidirectional_iterator_tag;
    using value_type = ZrXMLComplexElement*;
    using difference_type = std::ptrdiff_t;
    using pointer = ZrXMLComplexElement* const*;
    using reference = ZrXMLComplexElement*;

    Iterator() = default;
    ZrXMLComplexElement* operator*() const { return node_; }
    inline Iterator& operator++();
    inline Iterator& operator--();
    Iterator operator++(int) {
      const Iterator before = *this;
      ++*this;
      return before;
    }
    Iterator operator--(int) {
      const Iterator before = *this;
      --*this;
      return before;
    }
    friend bool operator==(const Iterator& a, const Iterator& b) { return a.node_ == b.node_; }

   private:
    friend class ZrChildList;
    Iterator(const ZrChildList* list, ZrXMLComplexElement* node) : list_(list), node_(node) {}

    const ZrChildList* list_ = nullptr;
    ZrXMLComplexElement* node_ = nullptr;  // null at the end
  };

  /// Elements that wait for their destruction, see DestroyAll().
  class Graveyard;

  constexpr ZrChildList() = default;
  ZrChildList(const ZrChildList&) = delete;
  ZrChildList& operator=(const ZrChildList&) = delete;

  std::size_t size() const { return size_; }
  bool empty() const { return first_ == nullptr; }
  /// Null when there is none.
  ZrXMLComplexElement* front() const { return first_; }
  ZrXMLComplexElement* back() const { return last_; }
  Iterator begin() const { return Iterator(this, first_); }
  Iterator end() const { return Iterator(this, nullptr); }

  /// Puts the child in front of another one, null for the end. Only the links of the sequence
  /// change.
  inline void Insert(ZrXMLComplexElement* before, ZrXMLComplexElement* child);
  /// Takes the child out.
  inline void Erase(ZrXMLComplexElement* child);
  /// Puts newChild in the place of oldChild, which is out then.
  inline void Exchange(ZrXMLComplexElement* oldChild, ZrXMLComplexElement* newChild);
  /// Goes through the sequence; for use where the child may be gone.
  bool Holds(const ZrXMLComplexElement* child) const;

  /// Differs after each change of the sequence.
  std::uint32_t Stamp() const { return stamp_ & ~kClearedBits; }
  /// While a child is being destroyed its slot counts as cleared: a search then fails.
  bool HasClearedSlots() const { return (stamp_ & kClearedBits) != 0; }
  void CountCleared(bool begins) {
    stamp_ = Stamp() | ((stamp_ + (begins ? 1u : kClearedBits)) & kClearedBits);
  }

  /// Destroys every element below this list in document order, an element always before its
  /// children, without recursion whatever the depth. Allocates nothing.
  void DestroyAll() noexcept;
  /// Is empty then, without a look at what it held: for nodes that are gone already.
  void Forget() noexcept {
    first_ = last_ = nullptr;
    size_ = 0;
  }
  /// Hands the elements over to a destruction that is under way further up.
  void MoveTo(Graveyard& graveyard) noexcept;

 private:
  ZrXMLComplexElement* first_ = nullptr;
  ZrXMLComplexElement* last_ = nullptr;
  static constexpr std::uint32_t kClearedBits = 0xff;
  static constexpr std::uint32_t kChange = 0x100;

  std::uint32_t size_ = 0;
  std::uint32_t stamp_ = 0;  // counts changes, below that the slots that are cleared
};
