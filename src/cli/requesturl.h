#pragma once
// The addresses that a user asks for.

#include <string_view>

#include "embed/address.h"

namespace zr::cli {

using RequestUrl = RequestAddress;

/// Reads such a text; bytes that no target may have are percent-encoded. Throws UsageError, naming
/// the text and what is wrong with it.
RequestUrl ParseRequestUrl(std::string_view text);

}  // namespace zr::cli
