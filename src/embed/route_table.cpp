#include "embed/route_table.h"

#include <algorithm>
#include <optional>
#include <utility>

namespace {

// In the order of ZrMethod.
constexpr std::array<std::string_view, 7> kNames = {"GET",   "POST",   "HEAD",   "PUT",
                                                    "PATCH", "DELETE", "OPTIONS"};

// A path of more pieces finds what the first ones lead to at most; so deep are no routes.
constexpr std::size_t kMostPieces = 100;

constexpr std::string_view kDots = "...";

[[noreturn]] void Refuse(std::string_view route, std::string_view why) {
  throw velkoro::ServerError("the route '" + std::string(route) + "': " + std::string(why));
}

struct Piece {
  enum class Kind { kText, kOpen, kRest };
  Kind kind;
  std::string_view text;  // of kText the text, else the name
};

Piece ReadPiece(std::string_view route, std::string_view text) {
  if (text.find_first_of("{}") == std::string_view::npos) return {Piece::Kind::kText, text};
  const bool whole = text.size() > 2 && text.front() == '{' && text.back() == '}';
  if (!whole) Refuse(route, "{name} stands for a whole piece between slashes");
  Piece piece{Piece::Kind::kOpen, text.substr(1, text.size() - 2)};
  if (piece.text.ends_with(kDots))
    piece = {Piece::Kind::kRest, piece.text.substr(0, piece.text.size() - kDots.size())};
  if (piece.text.empty() || piece.text.find_first_of("{}.") != std::string_view::npos)
    Refuse(route, "the name between the braces is missing or malformed");
  return piece;
}

std::vector<Piece> ReadPattern(std::string_view route, std::string_view pattern) {
  if (!pattern.starts_with('/')) Refuse(route, "a pattern begins with '/'");
  if (const std::string why = zr::WhyNoPath(pattern); !why.empty()) Refuse(route, why);
  std::vector<Piece> pieces;
  for (std::string_view left = pattern; !left.empty();) {
    left.remove_prefix(1);
    const std::size_t end = std::min(left.find('/'), left.size());
    if (!pieces.empty() && pieces.back().kind == Piece::Kind::kRest)
      Refuse(route, "{" + std::string(pieces.back().text) + "...} must be its last piece");
    pieces.push_back(ReadPiece(route, left.substr(0, end)));
    left.remove_prefix(end);
  }
  if (pieces.size() > kMostPieces) Refuse(route, "it has more than 100 pieces");
  return pieces;
}

}  // namespace

std::string zr::WhyNoPath(std::string_view path) {
  if (path.find_first_of("?#") != std::string_view::npos)
    return "a path has no '?' and no '#': queries and fragments are not compared";
  const auto isHex = [](char c) {
    return std::string_view("0123456789abcdefABCDEF").find(c) != std::string_view::npos;
  };
  for (std::size_t at = path.find('%'); at != std::string_view::npos; at = path.find('%', at + 1))
    if (at + 2 < path.size() && isHex(path[at + 1]) && isHex(path[at + 2]))
      return "paths are compared decoded: write the character that '" +
             std::string(path.substr(at, 3)) + "' stands for";
  for (std::string_view rest = path; !rest.empty();) {
    rest.remove_prefix(1);
    const std::size_t end = std::min(rest.find('/'), rest.size());
    const std::string_view piece = rest.substr(0, end);
    if (piece == "." || piece == "..") return "paths are compared without '.' and '..'";
    rest.remove_prefix(end);
  }
  return {};
}

/// One path on its way through the tree. The values are those of the open pieces passed so far.
struct ZrRouteTable::Search {
  ZrMethod method;
  Match match;
};

ZrRouteTable::ZrRouteTable() : root_(std::make_unique<Node>()) {}

ZrRouteTable::~ZrRouteTable() = default;

void ZrRouteTable::Add(std::string_view method, std::string_view pattern,
                       velkoro::Server::Handler handler) {
  const std::string text = std::string(method) + " " + std::string(pattern);
  const auto* const known = std::find(kNames.begin(), kNames.end(), method);
  if (known == kNames.end())
    Refuse(text, "the method must be GET, HEAD, POST, PUT, PATCH, DELETE or OPTIONS");
  if (!handler) Refuse(text, "it has no handler");
  auto route = std::make_unique<ZrRoute>(ZrRoute{text, {}, std::move(handler)});
  const std::vector<Piece> pieces = ReadPattern(text, pattern);
  Node* node = root_.get();
  Leaf* leaf = nullptr;
  for (const Piece& piece : pieces) {
    if (piece.kind != Piece::Kind::kText) {
      if (std::find(route->names.begin(), route->names.end(), piece.text) != route->names.end())
        Refuse(text, "two of its pieces have the name '" + std::string(piece.text) + "'");
      route->names.emplace_back(piece.text);
    }
    if (piece.kind == Piece::Kind::kRest) {
      leaf = &node->rest;
      break;
    }
    std::unique_ptr<Node>& next =
        piece.kind == Piece::Kind::kOpen ? node->open : node->texts[std::string(piece.text)];
    if (!next) next = std::make_unique<Node>();
    node = next.get();
  }
  if (leaf == nullptr) leaf = &node->here;
  std::unique_ptr<ZrRoute>& place = leaf->at(static_cast<std::size_t>(known - kNames.begin()));
  if (place) Refuse(text, "it answers the same paths as '" + place->pattern + "'");
  place = std::move(route);
}

bool ZrRouteTable::Take(const Leaf& leaf, Search& search) {
  const auto of = [&leaf](ZrMethod method) { return leaf[static_cast<std::size_t>(method)].get(); };
  const ZrRoute* route = of(search.method);
  if (route == nullptr && search.method == ZrMethod::kHead) route = of(ZrMethod::kGet);
  search.match.route = route;
  if (route != nullptr) return true;
  for (std::size_t method = 0; method < kMethods; ++method)
    if (leaf[method]) search.match.allowed |= Bit(static_cast<ZrMethod>(method));
  return false;
}

// A node is reached on one way only, so that none is looked at twice, whatever the path.
bool ZrRouteTable::FindIn(const Node& node, std::string_view rest, Search& search) {
  if (rest.empty()) return Take(node.here, search);
  rest.remove_prefix(1);  // the slash
  const std::size_t end = std::min(rest.find('/'), rest.size());
  const std::string_view piece = rest.substr(0, end);
  if (const auto text = node.texts.find(piece);
      text != node.texts.end() && FindIn(*text->second, rest.substr(end), search))
    return true;
  std::vector<std::string_view>& values = search.match.values;
  if (node.open && !piece.empty()) {
    values.push_back(piece);
    if (FindIn(*node.open, rest.substr(end), search)) return true;
    values.pop_back();
  }
  values.push_back(rest);
  if (Take(node.rest, search)) return true;
  values.pop_back();
  return false;
}

ZrRouteTable::Match ZrRouteTable::Find(std::string_view path, ZrMethod method) const {
  Search search{method, {}};
  if (path.starts_with('/')) FindIn(*root_, path, search);
  return std::move(search.match);
}

std::string ZrRouteTable::AllowText(Methods methods) {
  methods |= Bit(ZrMethod::kOptions);
  if ((methods & Bit(ZrMethod::kGet)) != 0) methods |= Bit(ZrMethod::kHead);
  std::string text;
  for (std::size_t method = 0; method < kMethods; ++method) {
    if ((methods & Bit(static_cast<ZrMethod>(method))) == 0) continue;
    text.append(text.empty() ? "" : ", ").append(kNames.at(method));
  }
  return text;
}
