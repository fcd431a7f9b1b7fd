#pragma once
// The strict reader of request heads (RFC 9112, 2 to 6).

#include <cstdint>

#include "http/fwd.h"

namespace zr {

/// Consumes the head from the front of the message's `body` as far as it has arrived, and fills the
/// message: words and fields, method, path, query, the length of the body, and what becomes of the
/// connection. Returns 0, or the status that a refused request is answered with.
std::uint64_t ReadStandardHead(ZrXHeader& message);

}  // namespace zr
