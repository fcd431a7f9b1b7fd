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
  /// The option's value, also when that is empty; the default only when the name is absent.
  std::string Get(std::string_view name, std::string_view defaultValue = {}) const {
    const auto found = entries_.find(name);
    return found == entries_.end() ? std::string(defaultValue) : found->second;
  }
  bool Has(std::string_view name) const { return entries_.find(name) != entries_.end(); }
  const Entries& entries() const { return entries_; }

 private:
  Entries entries_;
};
