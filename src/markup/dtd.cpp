#include "markup/dtd.h"

#include <algorithm>
#include <bit>
#include <stdexcept>

#include "base/exception.h"
#include "markup/element_reader.h"

void ZrDTD::AddState(std::unique_ptr<ZrDTDElementRead> prototype, Factory factory, bool container) {
  const auto place = std::lower_bound(
      states_.begin(), states_.end(), prototype->Name(),
      [](const State& state, const std::string& name) { return state.prototype->Name() < name; });
  if (place != states_.end() && place->prototype->Name() == prototype->Name())
    throw ZrException("name can't be twice", 1122, "src");
  if (states_.size() == 64) throw std::length_error("a DTD has at most 64 states");
  states_.insert(place, State{std::move(prototype), factory, container});
  found_.reset();
  nodes_ = Nodes::kAny;
}

void ZrDTD::Find(std::size_t byte) {
  Begun& begun = byByte_[byte];
  begun = {};
  for (std::size_t i = 0; i < states_.size(); ++i) {
    const std::uint64_t bit = std::uint64_t{1} << i;
    const ZrDTDElementRead& state = *states_[i].prototype;
    if (state.FirstBytes().Has(static_cast<char>(byte))) begun.first |= bit;
    if (state.SecondBytes().Has(static_cast<char>(byte))) begun.second |= bit;
  }
  found_.set(byte);
}

ZrDTD::State* ZrDTD::Recognise(ZrDTDElementReader& reader) {
  const int first = reader.PeekUnread();
  if (first < 0) return nullptr;
  std::uint64_t left = ByByte(first).first;
  // Most attempts at a "<" are saved by a second look; not where input would have to be waited for.
  if ((left & (left - 1)) != 0) {
    const int second = reader.SecondUnread();
    if (second >= 0) left &= ByByte(second).second;
  }
  for (; left != 0; left &= left - 1) {
    State& state = states_[static_cast<std::size_t>(std::countr_zero(left))];
    if (state.prototype->Read(reader) != nullptr) return &state;
  }
  return nullptr;
}
