#include "http/answer_reader.h"

#include <algorithm>
#include <optional>
#include <string_view>
#include <utility>

#include "base/number.h"
#include "http/field_list.h"

namespace {

constexpr std::uint64_t kLowestStatus = 100;
constexpr std::uint64_t kHighestStatus = 999;

/// Three digits in the first line.
std::optional<std::uint64_t> StatusOf(const ZrXHeader& head) {
  const ZrHeaderFields::Values words = head.headers[zr::kFirstLine];
  if (words.size() < 2 || words[1].size() != 3) return std::nullopt;
  const auto status = zr::ParseDigits(words[1]);
  if (!status || *status < kLowestStatus || *status > kHighestStatus) return std::nullopt;
  return status;
}

/// The one length that all of the values give; nothing when they are no numbers or differ.
std::optional<std::uint64_t> LengthOf(const ZrHeaderFields::Values& values) {
  std::optional<std::uint64_t> length;
  const bool agree = zr::AllListElements(values, [&length](std::string_view element) {
    const auto number = zr::ParseDigits(element);
    if (!number || (length && *length != *number)) return false;
    length = number;
    return true;
  });
  return agree ? length : std::nullopt;
}

}  // namespace

ZrAnswerReader::Result ZrAnswerReader::Unreadable(const char* problem) {
  problem_ = problem;
  step_ = Step::kDone;
  return Result::kUnreadable;
}

ZrAnswerReader::Result ZrAnswerReader::Read(ZrXHeader& head, ZrStringBuf& input, Line line,
                                            const std::function<bool(ZrXHeader&)>& onHeadComplete) {
  Result result = Result::kIncomplete;
  if (step_ == Step::kHead) {
    result = ReadHead(head, input, onHeadComplete);
    if (step_ == Step::kHead || result == Result::kUnreadable) {
      if (result != Result::kIncomplete || line == Line::kOpen) return result;
      return Unreadable("the connection ended in the head of the answer");
    }
  }
  result = ReadBody(head, input);
  if (result != Result::kIncomplete || line == Line::kOpen) return result;
  if (step_ == Step::kUntilEnd && line == Line::kEnded) {
    step_ = Step::kDone;
    return Result::kComplete;
  }
  return Unreadable("the connection ended in the body of the answer");
}

// While the head is read, the input lies in the head's own buffer; what is left there when it has
// ended goes back.
ZrAnswerReader::Result ZrAnswerReader::ReadHead(
    ZrXHeader& head, ZrStringBuf& input, const std::function<bool(ZrXHeader&)>& onHeadComplete) {
  if (!head.body) head.body = std::make_unique<ZrStringBuf>();
  if (head.body->Empty()) {
    *head.body = std::exchange(input, ZrStringBuf());
  } else {
    head.body->Append(input.Unread());
    input.Clear();
  }
  // The end of the body is found here, not there: only what concerns the head is of interest.
  const ZrReadResult read = head.ReadHead([](ZrXHeader&) { return true; });
  if (head.InHead()) {
    if (read == ZrReadResult::kRejected) return Unreadable("the head of the answer is too long");
    return Result::kIncomplete;
  }
  input = std::move(*head.body);
  head.body = std::make_unique<ZrStringBuf>();
  return TakeHead(head, onHeadComplete);
}

ZrAnswerReader::Result ZrAnswerReader::TakeHead(
    ZrXHeader& head, const std::function<bool(ZrXHeader&)>& onHeadComplete) {
  if (head.kind != ZrMessageKind::kResponse) return Unreadable("it is no answer of this protocol");
  const auto status = StatusOf(head);
  if (!status) return Unreadable("the answer has no status");
  head.status = *status;
  if (*status < 200) {
    return ++interims_ > kMaxInterims ? Unreadable("interim answers without end")
                                      : Result::kInterim;
  }
  if (!ChooseFraming(head)) return Result::kUnreadable;
  if (!onHeadComplete(head)) return Unreadable("the answer was refused");
  return Result::kIncomplete;
}

bool ZrAnswerReader::InHead(const ZrXHeader& head) const {
  return step_ == Step::kHead && (head.LineCount() > 0 || (head.body && !head.body->Empty()));
}

bool ZrAnswerReader::ChooseFraming(const ZrXHeader& head) {
  const ZrHeaderFields::Values codings = head.headers["transfer-encoding"];
  const ZrHeaderFields::Values lengths = head.headers["content-length"];
  const bool oldVersion = head.headers[zr::kFirstLine].front().ends_with("/1.0");
  keepsConnection_ = !head.closeRequested &&
                     !zr::HasListElement(head.headers["connection"], "close") &&
                     (!oldVersion || zr::HasListElement(head.headers["connection"], "keep-alive"));
  if (noBody_ || head.status == 204 || head.status == 304) {
    step_ = Step::kDone;
    return true;
  }
  if (!codings.empty()) {
    // Others than "chunked" were not asked for. With a length beside it, the two may disagree on
    // the end of the answer: the chunks tell it, and the connection is not used again.
    if (codings.size() != 1 || !zr::EqualsIgnoringCase(codings.front(), "chunked")) {
      Unreadable("the answer has an unknown transfer coding");
      return false;
    }
    if (!lengths.empty()) keepsConnection_ = false;
    step_ = Step::kChunks;
    return true;
  }
  if (lengths.empty()) {
    keepsConnection_ = false;
    step_ = Step::kUntilEnd;
    return true;
  }
  const auto length = LengthOf(lengths);
  if (!length || *length > zr::kMaxBodyBytes) {
    Unreadable(length ? "the body of the answer is too long" : "the answer has a bad length");
    return false;
  }
  remaining_ = *length;
  step_ = Step::kLength;
  return true;
}

ZrAnswerReader::Result ZrAnswerReader::ReadBody(ZrXHeader& head, ZrStringBuf& input) {
  for (;;) {
    switch (step_) {
      case Step::kHead:
        return Result::kIncomplete;
      case Step::kDone:
        return Result::kComplete;
      case Step::kLength:
        remaining_ -= MoveBytes(head, input, remaining_);
        if (remaining_ != 0) return Result::kIncomplete;
        step_ = Step::kDone;
        break;
      case Step::kUntilEnd:
        if (head.body->Size() + input.Size() > zr::kMaxBodyBytes)
          return Unreadable("the body of the answer is too long");
        MoveBytes(head, input, input.Size());
        return Result::kIncomplete;
      case Step::kChunks:
        if (const Result result = ReadChunks(head, input); result != Result::kComplete)
          return result;
        step_ = Step::kDone;
        break;
    }
  }
}

ZrAnswerReader::Result ZrAnswerReader::ReadChunks(ZrXHeader& head, ZrStringBuf& input) {
  for (;;) {
    switch (chunks_.Read(input)) {
      case ZrChunkedDecoder::Next::kIncomplete:
        return Result::kIncomplete;
      case ZrChunkedDecoder::Next::kData:
        if (chunks_.Remaining() > zr::kMaxBodyBytes - head.body->Size())
          return Unreadable("the body of the answer is too long");
        chunks_.Took(MoveBytes(head, input, chunks_.Remaining()));
        break;
      case ZrChunkedDecoder::Next::kEnd:
        return Result::kComplete;
      case ZrChunkedDecoder::Next::kNoSize:
        return Unreadable("a chunk of the answer has no size");
      case ZrChunkedDecoder::Next::kNoEnd:
        return Unreadable("a chunk of the answer has no end");
      case ZrChunkedDecoder::Next::kTrailers:
        return Unreadable("the fields behind the answer are too long");
    }
  }
}

// Moves what has come of so many bytes to the body.
std::uint64_t ZrAnswerReader::MoveBytes(ZrXHeader& head, ZrStringBuf& input, std::uint64_t most) {
  const auto count = static_cast<std::size_t>(std::min<std::uint64_t>(most, input.Size()));
  if (head.body->Empty() && count == input.Size()) {
    *head.body = std::exchange(input, ZrStringBuf());
  } else {
    head.body->Append(input.Unread().substr(0, count));
    input.Consume(count);
  }
  return count;
}
