#pragma once
// Replaces the markers [[name]] of a text.
//
// The idea: what has been scanned is written out, what is still to be scanned stands in a buffer
// with free space in front of it, and a replacement is laid into that space. So scanning goes on
// where the replacement starts, markers that it brings along are found in turn, and the space grows
// by as much as there is text, so the cost is that of the text and of what was inserted, however
// they nest.

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

namespace zr {

/// A marker whose replacement holds the same marker would go on for ever. These two bound one call;
/// what is left when one is reached stays as it is.
inline constexpr std::size_t kMaxMarkerReplacements = 10'000;
inline constexpr std::size_t kMaxMarkerBytes = std::size_t{64} << 20;  // inserted, in all

/// Answers the text that takes a marker's place.
using MarkerLookup = std::function<std::string(std::string_view name)>;

/// Expands the markers of the text in place. No: a bound was reached. Passes on what the
/// lookup throws; the text is then unchanged.
bool ExpandMarkers(std::string& text, const MarkerLookup& lookup);

}  // namespace zr
