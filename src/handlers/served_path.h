#pragma once
// Which paths of requests may be looked up at all, decided in this one place for stored pages,
// files, programs and PHP pages. A path is a list of pieces between slashes; the kernel reads some
// lists in more than one way, and what a list could reach must not depend on who reads it.

#include <cstddef>
#include <string_view>

namespace zr {

/// Whether the path (of a request, without its leading "/") may name something. No for an empty one
/// and for one with
/// - a piece that begins with ".": hidden names, and every way up or to the same place again;
/// - an empty piece: the kernel skips it, so that "/cgi-bin/x" would be the file of a program.
/// A slash at the end makes no piece: it says that a directory is meant. Threads: any.
constexpr bool IsServedPath(std::string_view path) noexcept {
  if (path.empty()) return false;
  for (std::size_t piece = 0; piece < path.size(); ++piece) {
    if (path[piece] == '.' || path[piece] == '/') return false;
    piece = path.find('/', piece);
    if (piece == std::string_view::npos) break;
  }
  return true;
}

}  // namespace zr
