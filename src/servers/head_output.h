#pragma once
// How a message goes into the queue of its connection.

#include <cstdint>

#include "base/string_buffer.h"

class ZrTransceiverConnection;
class ZrXHeader;

namespace zr {

/// Bodies of files up to that size (bytes) are copied behind their head and go out in one piece.
inline constexpr std::uint64_t kInlineFileSize = 64 * 1024;

/// Writes the head and the body, bytes or file: what is small into `out`, which the caller flushes
/// the connection with, else both are queued and `out` stays empty; nothing of a head that must not
/// be written. Answers the bytes of both, as the log counts them. A file that cannot be opened
/// contributes none, and the connection ends behind the head, whose promised length cannot be kept.
std::uint64_t WriteMessage(ZrTransceiverConnection& connection, ZrXHeader& head, ZrStringBuf& out);

}  // namespace zr
