#pragma once
// The codings of bodies, as "Content-Encoding" names them: gzip (RFC 1952) and brotli (RFC 7932),
// and which bodies are worth one.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "http/body_encoder.h"
#include "http/fwd.h"
#include "http/preferences.h"

namespace zr {

/// Smaller bodies are sent as they are: they fit in one packet in any case.
inline constexpr std::uint64_t kLeastCompressed = 1024;
/// Larger ones, too, as both forms would lie in memory while one is made. A precompressed file
/// beside the file has no limit, nor has a body that is made piece by piece.
inline constexpr std::uint64_t kMostCompressed = std::uint64_t{16} << 20;

/// Whether bodies of that media type are text, or like it, and not compressed already.
bool IsCompressible(std::string_view contentType);

/// The coding that the body of the answer to this request is to have, by what the request accepts
/// and what the body is: none in minimal semantics, for another type or size, for one that has a
/// coding, is a part, or says "no-transform". An answer that another request would get in another
/// form says so from now on ("Vary"). `size`: nothing for one that is not known yet.
ZrCoding ChooseBodyCoding(const ZrXHeader& request, ZrXHeader& answer,
                          std::optional<std::uint64_t> size);
/// The answer's body is in that coding: it names it, with an entity tag of its own.
void SetBodyCoding(ZrXHeader& answer, ZrCoding coding);

/// The encoder of a coding, none for identity. Throws std::bad_alloc.
std::unique_ptr<ZrBodyEncoder> MakeBodyEncoder(ZrCoding coding);

/// A whole body in a coding; nothing when it would not be shorter, or `goesOn`, which is asked from
/// time to time, says no. `piece` gives the body front to back, an empty text at its end, and is
/// asked until then. Throws std::bad_alloc.
std::optional<std::string> Compressed(ZrCoding coding, std::uint64_t size,
                                      const std::function<std::string_view()>& piece,
                                      const std::function<bool()>& goesOn);

}  // namespace zr
