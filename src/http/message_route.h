#pragma once
// The names by which a message finds its way: those of a connection and its server, which all
// messages of the connection share; an answer has them in reverse.

#include <cstddef>
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

/// A constant list of names, empty from the start. Threads: as a std::shared_ptr.
class ZrMessageRoute {
 public:
  ZrMessageRoute() = default;
  ZrMessageRoute(std::initializer_list<std::string> names)
      : names_(std::make_shared<const std::vector<std::string>>(names)) {}

  std::size_t size() const { return names_ ? names_->size() : 0; }
  bool empty() const { return size() == 0; }
  /// The name at that place, which must exist.
  const std::string& operator[](std::size_t place) const {
    return (*names_)[reversed_ ? names_->size() - 1 - place : place];
  }
  ZrMessageRoute Reversed() const {
    ZrMessageRoute route = *this;
    route.reversed_ = !reversed_;
    return route;
  }
  bool operator==(const std::vector<std::string>& other) const {
    for (std::size_t place = 0; place < size(); ++place)
      if (size() != other.size() || (*this)[place] != other[place]) return false;
    return size() == other.size();
  }

 private:
  std::shared_ptr<const std::vector<std::string>> names_;
  bool reversed_ = false;
};
