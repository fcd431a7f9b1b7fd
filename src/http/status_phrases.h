#pragma once
// The reason phrases of the registry of statuses.

#include <cstdint>
#include <string_view>

namespace zr {

/// The standard phrase of a status; empty for one that is not registered.
std::string_view StandardPhrase(std::uint64_t status);

}  // namespace zr
