#pragma once
// The pages that a server in standard semantics makes itself: listings of directories and error
// pages. Pure functions: what they show is given to them. Texts from outside are escaped here.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace zr {

/// The text as content or attribute value of markup.
std::string EscapedMarkup(std::string_view text);
/// The text as one piece of a path in an address.
std::string EscapedPathPiece(std::string_view text);

struct ListingEntry {
  std::string name;
  bool directory = false;
  std::uint64_t size = 0;     ///< bytes; not shown for a directory
  std::int64_t modified = 0;  ///< seconds since 1970
};

/// A listing shows so many entries and says how many it leaves out.
inline constexpr std::size_t kMostListed = 10'000;

/// The page that lists a directory. `path` is its decoded path from the root of the site, with "/"
/// at both ends; every directory but "/" links to the one above. Directories come first, names in
/// byte order; those that begin with "." are left out. Sizes are in units of 1024, times in UTC.
std::string DirectoryListing(std::string_view path, std::vector<ListingEntry> entries);

struct ErrorPage {
  std::string body;
  std::string_view contentType;
};

/// The page of a status: its phrase and one sentence, as HTML or as a JSON problem (RFC 9457).
ErrorPage MakeErrorPage(std::uint64_t status, std::string_view phrase, bool json);

}  // namespace zr
