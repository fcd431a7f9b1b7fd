#pragma once
// What few elements have: an error note and an observer; and what the open elements of a parse
// have: the saved document kind. One pointer in the element holds all of it. Not for use outside
// the node classes.

#include <cstdint>
#include <string>

#include "markup/name.h"

class ZrElementObserver;

class ZrElementExtras {
 public:
  ZrElementExtras() = default;
  ZrElementExtras(const ZrElementExtras&) = delete;
  ZrElementExtras& operator=(const ZrElementExtras&) = delete;
  ~ZrElementExtras() {
    if (place_ != nullptr) Discard();
  }

  /// The element's value; empty when none was set.
  const std::string& value() const;
  void SetValue(ZrNameView value);
  /// For the parser, in an element without value: a text that is not counted.
  void SetUncounted(zr::NameText& value) noexcept { place_ = reinterpret_cast<char*>(&value); }
  /// Whether the value is that text.
  bool HasUncounted(const zr::NameText& value) const noexcept {
    return place_ == reinterpret_cast<const char*>(&value);
  }
  /// Empty when no error was noted.
  const std::string& errorText() const;
  void SetErrorText(const char* text);
  ZrElementObserver* observer() const { return HasRecord() ? record()->observer : nullptr; }
  void SetObserver(ZrElementObserver* observer);

 private:
  struct Record {
    ZrName value;
    std::string errorText;
    ZrElementObserver* observer = nullptr;
  };

  bool HasRecord() const { return (reinterpret_cast<std::uintptr_t>(place_) & 1) != 0; }
  Record* record() const { return reinterpret_cast<Record*>(place_ - 1); }
  zr::NameText* name() const { return reinterpret_cast<zr::NameText*>(place_); }
  Record& MakeRecord();
  void Discard() noexcept;

  // A value alone is a counted name text. A record's address is kept one higher: no text lies at an
  // odd one.
  char* place_ = nullptr;
};
