#pragma once
// How far a message has been read. Belongs to its head; only the readers of this folder use it.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>

#include "base/string_buffer.h"
#include "http/body_store.h"
#include "http/chunked_decoder.h"

struct ZrMessageReading {
  bool inHead = true;
  bool rejected = false;
  bool lengthDeclared = false;
  bool emptyLength = false;  // a length without a value
  bool ambiguous = false;    // others may read it in another way
  std::size_t lineCount = 0;
  std::size_t headBytes = 0;  // consumed by the head so far
  std::size_t scanned = 0;    // unread bytes that were searched for the end of a line in vain

  std::unique_ptr<ZrBodyStore> store;  // of a body that does not stay on the heap
  std::uint64_t elsewhere = 0;         // bytes of the body that `body` does not hold

  // Standard semantics only: what has arrived behind the head, and how lines end.
  bool framed = false;  // a field says something of the message's end or of the connection
  bool expectsContinue = false;
  std::unique_ptr<ZrStringBuf> input;
  std::optional<ZrChunkedDecoder> chunks;
  enum class LineEnd : std::uint8_t { kUnknown, kCrLf, kLf } lineEnd = LineEnd::kUnknown;
};
