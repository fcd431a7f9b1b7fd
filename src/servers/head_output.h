#pragma once
// How a message goes into the queue of its connection.

#include <cstdint>

class ZrTransceiverConnection;
class ZrXHeader;

namespace zr {

/// Bodies of files up to that size (bytes) are copied behind their head and go out in one piece.
inline constexpr std::uint64_t kInlineFileSize = 64 * 1024;

/// Writes the head and queues it with the body, bytes or file; nothing is queued of a head that
/// must not be written. Answers the bytes of both, as the log counts them. A file that cannot be
/// opened contributes none, and the connection ends behind the head, whose promised length cannot
/// be kept. The caller flushes the connection.
std::uint64_t QueueMessage(ZrTransceiverConnection& connection, ZrXHeader& head);

}  // namespace zr
