#include "markup/element_extras.h"

#include <memory>

void ZrElementExtras::Discard() noexcept {
  if (HasRecord())
    delete record();
  else
    ZrName::Drop(name());
}

const std::string& ZrElementExtras::value() const {
  if (HasRecord()) return record()->value.str();
  return place_ != nullptr ? name()->text : ZrName::Empty();
}

void ZrElementExtras::SetValue(ZrNameView value) {
  ZrName kept(value);
  if (HasRecord()) {
    record()->value = std::move(kept);
    return;
  }
  ZrName::Drop(name());
  place_ = reinterpret_cast<char*>(std::exchange(kept.shared_, nullptr));
}

const std::string& ZrElementExtras::errorText() const {
  return HasRecord() ? record()->errorText : ZrName::Empty();
}

void ZrElementExtras::SetErrorText(const char* text) { MakeRecord().errorText = text; }

void ZrElementExtras::SetObserver(ZrElementObserver* observer) {
  if (observer != nullptr || HasRecord()) MakeRecord().observer = observer;
}

ZrElementExtras::Record& ZrElementExtras::MakeRecord() {
  if (!HasRecord()) {
    auto fresh = std::make_unique<Record>();
    fresh->value.shared_ = name();  // takes the count over
    place_ = reinterpret_cast<char*>(fresh.release()) + 1;
  }
  return *record();
}
