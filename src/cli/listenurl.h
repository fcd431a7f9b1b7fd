#pragma once
// The addresses that a user asks servers for.

#include <string_view>

#include "embed/address.h"

namespace zr::cli {

using ListenUrl = ListenAddress;

/// Reads such a text; a single "/" at its end is allowed. Throws UsageError, naming the text and
/// what is wrong with it.
ListenUrl ParseListenUrl(std::string_view text);

}  // namespace zr::cli
