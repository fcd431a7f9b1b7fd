#pragma once
// Which handler answers a request, by method and path. The routes stand in a tree with one level
// for each piece of a path, so that a request passes as many nodes as its path has pieces, however
// many routes there are.

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "http/semantics.h"
#include "velkoro/server.h"

/// One route: what answers, and how the pieces that its pattern leaves open are called.
struct ZrRoute {
  std::string pattern;
  std::vector<std::string> names;
  velkoro::Server::Handler handler;
};

namespace zr {

/// Why no request has such a path, in words; empty when one may. The path begins with a slash.
std::string WhyNoPath(std::string_view path);

}  // namespace zr

/// Filled by one thread, then asked by any number of them.
class ZrRouteTable {
 public:
  /// The methods of a set, one bit for each.
  using Methods = std::uint32_t;

  struct Match {
    const ZrRoute* route = nullptr;
    /// What the route's names stand for, in their order; views of the path.
    std::vector<std::string_view> values = {};
    Methods allowed = 0;  ///< without a route: the methods that have one
  };

  ZrRouteTable();
  ~ZrRouteTable();

  /// Throws velkoro::ServerError for what is no method or pattern, and for paths that have a route.
  void Add(std::string_view method, std::string_view pattern, velkoro::Server::Handler handler);
  /// The most literal route of that method for the path: a text comes before an open piece, that
  /// before an open rest. A HEAD takes the route of GET where it has none of its own.
  Match Find(std::string_view path, ZrMethod method) const;

  /// As "Allow" lists them, with HEAD and OPTIONS, which every path knows.
  static std::string AllowText(Methods methods);
  static constexpr Methods Bit(ZrMethod method) {
    return Methods{1} << static_cast<unsigned>(method);
  }

 private:
  static constexpr std::size_t kMethods = 7;
  using Leaf = std::array<std::unique_ptr<ZrRoute>, kMethods>;
  struct Node {
    std::map<std::string, std::unique_ptr<Node>, std::less<>> texts;
    std::unique_ptr<Node> open;  // {name}
    Leaf here;
    Leaf rest;  // {rest...}
  };
  struct Search;

  static bool FindIn(const Node& node, std::string_view rest, Search& search);
  static bool Take(const Leaf& leaf, Search& search);

  const std::unique_ptr<Node> root_;
};
