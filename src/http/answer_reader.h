#pragma once
// Reads the answer to an outgoing request: the head through the incremental head reader, then the
// body as the head frames it: by a length, in chunks, or by the end of the connection. The answers
// of other servers come in more forms than the ones written here, and the peer is not trusted:
// whatever does not add up makes the answer unreadable, because guessing where it ends could hand
// its rest to the next request.

#include <cstdint>
#include <functional>
#include <string>

#include "base/string_buffer.h"
#include "http/chunked_decoder.h"
#include "http/message_head.h"

/// One answer. Threads: one at a time.
class ZrAnswerReader {
 public:
  enum class Result {
    kIncomplete,  ///< Read again when more has arrived.
    kInterim,     ///< A 1xx answer was read: go on with a new head.
    kComplete,    ///< The head and its decoded body are there; the input keeps what follows.
    kUnreadable,  ///< Problem() says why; close the connection.
  };
  /// What has become of the connection when the reader is called.
  enum class Line { kOpen, kEnded, kBroken };

  static constexpr int kMaxInterims = 64;  ///< 1xx answers before the final one

  /// Consumes from the input what belongs to the answer. The head is a new one for every answer and
  /// the same for all calls of one; its `status` is set and `body` gets the decoded body. The
  /// callback is that of ReadHead(), called for the final answer only. Cost is linear in the input.
  Result Read(ZrXHeader& head, ZrStringBuf& input, Line line,
              const std::function<bool(ZrXHeader&)>& onHeadComplete);

  /// The request was a HEAD: the answer has no body, whatever its head says.
  void ExpectNoBody() { noBody_ = true; }
  /// Whether the last Read() ended within a head of which something has come.
  bool InHead(const ZrXHeader& head) const;
  /// Why an answer is unreadable; a fixed text.
  const char* Problem() const { return problem_; }
  /// Whether the peer keeps the connection open behind this answer. Asked when it is complete.
  bool KeepsConnection() const { return keepsConnection_; }

 private:
  enum class Step { kHead, kLength, kUntilEnd, kChunks, kDone };

  Result ReadHead(ZrXHeader& head, ZrStringBuf& input,
                  const std::function<bool(ZrXHeader&)>& onHeadComplete);
  Result TakeHead(ZrXHeader& head, const std::function<bool(ZrXHeader&)>& onHeadComplete);
  bool ChooseFraming(const ZrXHeader& head);
  Result ReadBody(ZrXHeader& head, ZrStringBuf& input);
  Result ReadChunks(ZrXHeader& head, ZrStringBuf& input);
  static std::uint64_t MoveBytes(ZrXHeader& head, ZrStringBuf& input, std::uint64_t most);
  Result Unreadable(const char* problem);

  Step step_ = Step::kHead;
  std::uint64_t remaining_ = 0;  // of a body of known length
  ZrChunkedDecoder chunks_;
  int interims_ = 0;
  bool noBody_ = false;
  bool keepsConnection_ = false;
  const char* problem_ = "";
};
