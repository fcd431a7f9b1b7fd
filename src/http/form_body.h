#pragma once
// Form fields: the decoding of a complete request's body, URL-encoded or multipart, and of the
// query of a target. Every field becomes a block of the head. The body bytes are read where they
// lie and stay in the head. The cost is linear in the bytes, whatever they are.

#include <cstddef>
#include <string>
#include <string_view>

#include "http/fwd.h"
#include "http/message_head.h"

namespace zr {

/// A message has at most this many form fields and parts, all told; what follows is left out.
inline constexpr std::size_t kMaxFormFields = 10'000;
/// The parts of one body have at most this many head lines, all told; further ones are skipped.
inline constexpr std::size_t kMaxPartHeadLines = 4 * kMaxFormFields;

/// Replaces "%" and two hexadecimal digits by that byte, other "%" stay; with `plusIsSpace` every
/// "+" becomes a space first.
std::string DecodePercent(std::string_view text, bool plusIsSpace);

/// Adds a block for each name=value piece between "&"; pieces without "=" are skipped.
void AppendUrlEncoded(ZrXHeader& head, std::string_view text, bool plusIsSpace);

/// Adds a block for each part that two delimiters of that boundary enclose.
void AppendMultipart(ZrXHeader& head, std::string_view body, std::string_view boundary);

}  // namespace zr

/// Decodes the body of a complete request by its "content-type". kIncomplete when the body is
/// shorter than declared and kRejected when it is longer (nothing is parsed in both cases), else
/// kComplete, also when there was nothing to parse. An unknown content type is reported on the
/// standard error stream.
ZrReadResult ParseFormBody(ZrXHeader& request);
