#pragma once
// The target of a request in standard semantics (RFC 9112, 3.2; RFC 3986, 5.2.4).

#include <optional>
#include <string>
#include <string_view>

namespace zr {

struct RequestTarget {
  /// Decoded once and without dot segments; begins with "/", or is "*" for the whole server.
  std::string path;
  std::string_view query;      ///< behind the first "?", as it was sent
  std::string_view authority;  ///< of the absolute form, which counts instead of "Host"
};

/// The parts of a target; the views lie in the text. Nothing when it is malformed: in none of the
/// forms, with a byte that a target cannot have, with a bad escape, or with an encoded NUL or
/// slash, which would mean one thing here and another one elsewhere.
std::optional<RequestTarget> ParseRequestTarget(std::string_view text);

/// Takes the "." and ".." pieces out of a path that begins with "/". What leads above the root
/// stays there.
void RemoveDotSegments(std::string& path);

/// Whether the text is a host with an optional port, as "Host" has it. Empty is one.
bool IsAuthority(std::string_view text);

}  // namespace zr
