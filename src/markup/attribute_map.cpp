#include "markup/attribute_map.h"

#include <algorithm>
#include <new>

#include "markup/node_memory.h"

void ZrAttributeMap::Discard(Block* block) noexcept {
  std::destroy_n(block->entries(), block->size);
  const std::size_t size = sizeof(Block) + sizeof(Entry) * block->capacity;
  block->~Block();
  zr::FreeNodeMemory(block, size);
}

std::uint32_t ZrAttributeMap::LowerBound(std::string_view name) const {
  const Entry* const first = block_->entries();
  const Entry* const last = first + block_->size;
  // Documents mostly give names in order: look at the end before searching.
  if (first == last || (last - 1)->name.str() < name) return block_->size;
  const Entry* const found = std::lower_bound(
      first, last, name, [](const Entry& e, std::string_view n) { return e.name.str() < n; });
  return static_cast<std::uint32_t>(found - first);
}

ZrAttributeMap::Owner* ZrAttributeMap::Find(std::string_view name) const {
  if (block_ == nullptr) return nullptr;
  if (block_->many != nullptr) {
    const auto found = block_->many->find(name);
    return found != block_->many->end() ? &found->second : nullptr;
  }
  const std::uint32_t place = LowerBound(name);
  if (place == block_->size || block_->entries()[place].name.str() != name) return nullptr;
  return &block_->entries()[place].owner;
}

ZrAttributeMap::Place ZrAttributeMap::Obtain(ZrNameView name) {
  if (block_ == nullptr) Resize(1);
  if (block_->many == nullptr) {
    const std::uint32_t place = LowerBound(name.text());
    if (place < block_->size && block_->entries()[place].name.str() == name.text())
      return {block_->entries()[place].owner, false};
    if (block_->size < kFew) {
      if (block_->size == block_->capacity) Resize(block_->capacity * 2 + 1);
      Entry* const entries = block_->entries();
      new (entries + block_->size) Entry{ZrName(name), nullptr};
      if (place != block_->size)
        std::rotate(entries + place, entries + block_->size, entries + block_->size + 1);
      ++block_->size;
      return {entries[place].owner, true};
    }
    MoveToTree();
  }
  const auto [place, fresh] = block_->many->try_emplace(ZrName(name));
  return {place->second, fresh};
}

void ZrAttributeMap::MoveToTree() {
  zr::NodePool::PartOpen();  // the tree lies on the heap
  auto tree = std::make_unique<Tree>();
  for (std::uint32_t i = 0; i < block_->size; ++i) {
    Entry& e = block_->entries()[i];
    tree->emplace_hint(tree->end(), e.name, std::move(e.owner));
  }
  std::destroy_n(block_->entries(), block_->size);
  block_->size = 0;
  block_->many = std::move(tree);
}

bool ZrAttributeMap::Erase(std::string_view name) {
  if (block_ == nullptr) return false;
  if (block_->many != nullptr) {
    const auto found = block_->many->find(name);
    if (found == block_->many->end()) return false;
    block_->many->erase(found);
    return true;
  }
  const std::uint32_t place = LowerBound(name);
  Entry* const entries = block_->entries();
  if (place == block_->size || entries[place].name.str() != name) return false;
  std::rotate(entries + place, entries + place + 1, entries + block_->size);
  --block_->size;
  std::destroy_at(entries + block_->size);
  return true;
}

void ZrAttributeMap::Reserve(std::size_t count) {
  const auto wanted = static_cast<std::uint32_t>(std::min<std::size_t>(count, kFew));
  if (wanted != 0 && (block_ == nullptr || block_->capacity < wanted)) Resize(wanted);
}

void ZrAttributeMap::Resize(std::uint32_t capacity) {
  void* const memory = zr::AllocateNodeMemory(sizeof(Block) + sizeof(Entry) * capacity);
  Block* const grown = new (memory) Block;
  grown->capacity = capacity;
  if (block_ != nullptr) {
    grown->size = block_->size;
    grown->many = std::move(block_->many);
    std::uninitialized_move_n(block_->entries(), block_->size, grown->entries());
    Discard(block_);
  }
  block_ = grown;
}
