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
  indexed_ = false;
  nodes_ = Nodes::kAny;
}

void ZrDTD::Index() {
  for (std::size_t byte = 0; byte < byFirst_.size(); ++byte) {
    byFirst_[byte] = 0;
    bySecond_[byte] = 0;
    for (std::size_t i = 0; i < states_.size(); ++i) {
      const std::uint64_t bit = std::uint64_t{1} << i;
      const ZrDTDElementRead& state = *states_[i].prototype;
      if (state.FirstBytes().Has(static_cast<char>(byte))) byFirst_[byte] |= bit;
      if (state.SecondBytes().Has(static_cast<char>(byte))) bySecond_[byte] |= bit;
    }
  }
  indexed_ = true;
}

ZrDTD::State* ZrDTD::Recognise(ZrDTDElementReader& reader) {
  const int first = reader.PeekUnread();
  if (first < 0) return nullptr;
  if (!indexed_) Index();
  std::uint64_t left = byFirst_[static_cast<std::size_t>(first)];
  // Most attempts at a "<" are saved by a second look; not where input would have to be waited for.
  if ((left & (left - 1)) != 0) {
    const int second = reader.SecondUnread();
    if (second >= 0) left &= bySecond_[static_cast<std::size_t>(second)];
  }
  for (; left != 0; left &= left - 1) {
    State& state = states_[static_cast<std::size_t>(std::countr_zero(left))];
    if (state.prototype->Read(reader) != nullptr) return &state;
  }
  return nullptr;
}
