#pragma once
// The attributes of one element, ordered byte-wise by name. Elements have few attributes: they are
// kept in one small sorted array; an element with very many changes to a tree, so that a tag with a
// million attributes still takes no more than its share of time. Not for use outside the node
// classes; visit attributes with ZrXMLGenericElement::ForEachAttribute().

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string_view>
#include <utility>

#include "markup/complex_attribute.h"
#include "markup/name.h"

class ZrAttributeMap {
 public:
  using Owner = std::unique_ptr<ZrXMLComplexAttribute2>;

  ZrAttributeMap() = default;
  ZrAttributeMap(const ZrAttributeMap&) = delete;
  ZrAttributeMap& operator=(const ZrAttributeMap&) = delete;
  ~ZrAttributeMap() { Clear(); }

  /// Destroys all attributes.
  void Clear() noexcept {
    if (Block* const block = std::exchange(block_, nullptr)) Discard(block);
  }

  /// The owner stored under the name (it is empty for a bare name), or null when the name is
  /// absent. Valid until the map changes.
  Owner* Find(std::string_view name) const;
  /// The owner stored under the name, entered empty when it is absent; fresh tells which.
  struct Place {
    Owner& owner;
    bool fresh;
  };
  Place Obtain(ZrNameView name);
  /// Removes the name and destroys its attribute. No: the name is absent.
  bool Erase(std::string_view name);
  /// Makes room for so many attributes in one piece.
  void Reserve(std::size_t count);

  /// For the parser, while the map is empty: takes over a piece of SizeFor(count) bytes for so many
  /// attributes, up to kFew, and enters them one by one, in the order of their names.
  static constexpr std::size_t SizeFor(std::size_t count) {
    return sizeof(Block) + sizeof(Entry) * count;
  }
  void Begin(void* piece, std::size_t count) noexcept {
    block_ = new (piece) Block;
    block_->capacity = static_cast<std::uint32_t>(count);
  }
  void EnterLast(zr::NameText& name, ZrXMLComplexAttribute2* attribute) noexcept {
    new (block_->entries() + block_->size++)
        Entry{ZrName(name, ZrName::Uncounted()), Owner(attribute)};
  }

  /// Calls visit(const std::string& name, const ZrXMLComplexAttribute2* attribute) in name order.
  template <class Visitor>
  void ForEach(Visitor&& visit) const {
    if (block_ == nullptr) return;
    const Entry* const entries = block_->entries();
    for (std::uint32_t i = 0; i < block_->size; ++i) {
      visit(entries[i].name.str(),
            static_cast<const ZrXMLComplexAttribute2*>(entries[i].owner.get()));
    }
    if (block_->many == nullptr) return;
    for (const auto& [name, owner] : *block_->many)
      visit(name.str(), static_cast<const ZrXMLComplexAttribute2*>(owner.get()));
  }

 private:
  static constexpr std::uint32_t kFew = 47;  // above it the tree takes over

  struct Entry {
    ZrName name;
    Owner owner;
  };
  struct Less {
    using is_transparent = void;
    bool operator()(const ZrName& a, const ZrName& b) const { return a.str() < b.str(); }
    bool operator()(const ZrName& a, std::string_view b) const { return a.str() < b; }
    bool operator()(std::string_view a, const ZrName& b) const { return a < b.str(); }
  };
  using Tree = std::map<ZrName, Owner, Less>;
  // Followed in memory by its entries. Either the entries are in use or the tree.
  struct Block {
    std::uint32_t size = 0;
    std::uint32_t capacity = 0;
    std::unique_ptr<Tree> many;

    Entry* entries() { return reinterpret_cast<Entry*>(this + 1); }
  };

  // The first entry whose name is not less than the given one.
  std::uint32_t LowerBound(std::string_view name) const;
  void MoveToTree();
  void Resize(std::uint32_t capacity);
  static void Discard(Block* block) noexcept;

  Block* block_ = nullptr;
};
