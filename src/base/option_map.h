#pragma once
// Settings travel through the system as option maps, copied by value between objects.

#include <map>
#include <string>
#include <string_view>
#include <utility>

/// Option names with their values, ordered byte-wise by name. Not locked: each object has its own.
class ZrOptionMap {
 public:
  using Entries = std::map<std::string, std::string, std::less<>>;

  /// Enters the option or replaces its value.
  void Set(std::string_view name, std::string value) {
    entries_.insert_or_assign(std::string(name), std::move(value));
  }
  /// The value of that option, to be written; all others go.
  std::string& Only(std::string_view name) {
    if (entries_.size() != 1 || entries_.begin()->first != name) {
      entries_.clear();
      entries_.emplace(name, std::string());
    }
    return entries_.begin()->second;
  }
  /// The option's value, also when that is empty; the default only when the name is absent.
  std::string Get(std::string_view name, std::string_view defaultValue = {}) const {
    const auto found = entries_.find(name);
    return found == entries_.end() ? std::string(defaultValue) : found->second;
  }
  /// The same without a copy, empty when the name is absent; valid until the option changes.
  std::string_view View(std::string_view name) const {
    const auto found = entries_.find(name);
    return found == entries_.end() ? std::string_view() : found->second;
  }
  bool Has(std::string_view name) const { return entries_.find(name) != entries_.end(); }
  const Entries& entries() const { return entries_; }

 private:
  Entries entries_;
};
