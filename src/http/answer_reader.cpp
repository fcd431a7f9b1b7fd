#include "http/answer_reader.h"

#include <algorithm>
#include <optional>
#include <string_view>

#include "base/number.h"

namespace {

constexpr std::string_view kLineEnd = "\r\n";
constexpr std::uint64_t kLowestStatus = 100;
constexpr std::uint64_t kHighestStatus = 999;

bool EqualsIgnoringCase(std::string_view text, std::string_view lower) {
  return std::equal(text.begin(), text.end(), lower.begin(), lower.end(), [](char a, char b) {
    return (a >= 'A' && a <= 'Z' ? static_cast<char>(a | 0x20) : a) == b;
  });
}

/// Calls `visit` with every element of a field's comma-separated values; answers whether it said
/// yes to all of them.
template <class Visit>
bool AllElements(const ZrHeaderFields::Values& values, Visit visit) {
  for (const std::string_view value : values) {
    std::string_view rest = value;
    for (;;) {
      const std::size_t comma = rest.find(',');
      if (!visit(rest.substr(0, comma))) return false;
      if (comma == std::string_view::npos) break;
      rest.remove_prefix(comma + 1);
    }
  }
  return true;
}

bool HasElement(const ZrXHeader& head, std::string_view field, std::string_view lower) {
  return !AllElements(head.headers[field], [lower](std::string_view element) {
    return !EqualsIgnoringCase(element, lower);
  });
}

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
  const bool agree = AllElements(values, [&length](std::string_view element) {
    const auto number = zr::ParseDigits(element);
    if (!number || (length && *length != *number)) return false;
    length = number;
    return true;
  });
  return agree ? length : std::nullopt;
}

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

/// The size in front of a chunk's extensions, which mean nothing here.
std::optional<std::uint64_t> ChunkSize(std::string_view line) {
  std::uint64_t size = 0;
  std::size_t digits = 0;
  while (digits < line.size() && HexDigit(line[digits]) >= 0) {
    if (size > zr::kMaxBodyBytes) return std::nullopt;  // beyond every limit already
    size = size * 16 + static_cast<std::uint64_t>(HexDigit(line[digits++]));
  }
  const std::string_view rest = line.substr(digits);
  const std::size_t text = rest.find_first_not_of(" \t");
  if (digits == 0 || (text != std::string_view::npos && rest[text] != ';')) return std::nullopt;
  return size;
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
    *head.body = std::move(input);
  } else {
    head.body->Append(input.Unread());
  }
  input.Clear();
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
  keepsConnection_ = !head.closeRequested && !HasElement(head, "connection", "close") &&
                     (!oldVersion || HasElement(head, "connection", "keep-alive"));
  if (head.status == 204 || head.status == 304) {
    step_ = Step::kDone;
    return true;
  }
  if (!codings.empty()) {
    // Others than "chunked" were not asked for. With a length beside it, the two may disagree on
    // the end of the answer: the chunks tell it, and the connection is not used again.
    if (codings.size() != 1 || !EqualsIgnoringCase(codings.front(), "chunked")) {
      Unreadable("the answer has an unknown transfer coding");
      return false;
    }
    if (!lengths.empty()) keepsConnection_ = false;
    step_ = Step::kChunkSize;
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
        if (!MoveBytes(head, input)) return Result::kIncomplete;
        step_ = Step::kDone;
        break;
      case Step::kUntilEnd:
        remaining_ = input.Size();
        if (head.body->Size() + remaining_ > zr::kMaxBodyBytes) {
          return Unreadable("the body of the answer is too long");
        }
        MoveBytes(head, input);
        return Result::kIncomplete;
      case Step::kChunkSize:
        if (const Result result = ReadChunkSize(input); result != Result::kComplete) return result;
        if (head.body->Size() + remaining_ > zr::kMaxBodyBytes) {
          return Unreadable("the body of the answer is too long");
        }
        break;
      case Step::kChunkData:
        if (!MoveBytes(head, input)) return Result::kIncomplete;
        step_ = Step::kChunkEnd;
        break;
      case Step::kChunkEnd: {
        const std::string_view end = input.Unread().substr(0, kLineEnd.size());
        if (!kLineEnd.starts_with(end)) return Unreadable("a chunk of the answer has no end");
        if (end.size() < kLineEnd.size()) return Result::kIncomplete;
        input.Consume(kLineEnd.size());
        step_ = Step::kChunkSize;
        break;
      }
      case Step::kTrailers:
        if (const Result result = ReadTrailers(input); result != Result::kComplete) return result;
        step_ = Step::kDone;
        break;
    }
  }
}

ZrAnswerReader::Result ZrAnswerReader::ReadChunkSize(ZrStringBuf& input) {
  const std::string_view line = input.Unread().substr(0, kMaxChunkLine);
  const std::size_t end = line.find(kLineEnd);
  if (end == std::string_view::npos) {
    return line.size() == kMaxChunkLine ? Unreadable("a chunk of the answer has no size")
                                        : Result::kIncomplete;
  }
  const auto size = ChunkSize(line.substr(0, end));
  if (!size) return Unreadable("a chunk of the answer has no size");
  input.Consume(end + kLineEnd.size());
  remaining_ = *size;
  step_ = *size == 0 ? Step::kTrailers : Step::kChunkData;
  return Result::kComplete;
}

// Fields behind the body are read over, up to the empty line.
ZrAnswerReader::Result ZrAnswerReader::ReadTrailers(ZrStringBuf& input) {
  for (;;) {
    const std::string_view rest = input.Unread().substr(0, kMaxTrailers + 1 - trailerBytes_);
    const std::size_t end = rest.find(kLineEnd);
    const std::size_t used = end == std::string_view::npos ? rest.size() : end + kLineEnd.size();
    if (trailerBytes_ + used > kMaxTrailers) {
      return Unreadable("the fields behind the answer are too long");
    }
    if (end == std::string_view::npos) return Result::kIncomplete;
    input.Consume(used);
    trailerBytes_ += used;
    if (end == 0) return Result::kComplete;
  }
}

// Moves what has come of the remaining bytes to the body; whether that was all of them.
bool ZrAnswerReader::MoveBytes(ZrXHeader& head, ZrStringBuf& input) {
  const std::size_t count =
      static_cast<std::size_t>(std::min<std::uint64_t>(remaining_, input.Size()));
  remaining_ -= count;
  if (head.body->Empty() && count == input.Size()) {
    *head.body = std::move(input);
    input.Clear();
  } else {
    head.body->Append(input.Unread().substr(0, count));
    input.Consume(count);
  }
  return remaining_ == 0;
}
