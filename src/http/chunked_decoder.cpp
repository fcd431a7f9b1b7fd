#include "http/chunked_decoder.h"

#include <limits>
#include <optional>

namespace {

constexpr std::string_view kLineEnd = "\r\n";

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

struct LineEnd {
  std::size_t at = std::string_view::npos;  // where it is; none: still to come
  bool lone = false;                        // half of one comes first, and the line is none
};

LineEnd FindLineEnd(std::string_view text) {
  const std::size_t at = text.find_first_of(kLineEnd);
  if (at == std::string_view::npos) return {};
  const std::string_view found = text.substr(at, kLineEnd.size());
  if (found == kLineEnd) return {.at = at};
  return {.lone = found.size() == kLineEnd.size() || found.front() == '\n'};
}

// The size in front of a chunk's extensions. One that is beyond every limit is the largest number.
std::optional<std::uint64_t> SizeIn(std::string_view line) {
  constexpr std::uint64_t kMost = std::numeric_limits<std::uint64_t>::max();
  std::uint64_t size = 0;
  std::size_t digits = 0;
  for (; digits < line.size() && HexDigit(line[digits]) >= 0; ++digits) {
    const auto digit = static_cast<std::uint64_t>(HexDigit(line[digits]));
    size = size > kMost >> 4 ? kMost : size * 16 + digit;
  }
  const std::string_view rest = line.substr(digits);
  const std::size_t text = rest.find_first_not_of(" \t");
  if (digits == 0 || (text != std::string_view::npos && rest[text] != ';')) return std::nullopt;
  return size;
}

}  // namespace

ZrChunkedDecoder::Next ZrChunkedDecoder::Read(ZrStringBuf& input) {
  for (;;) {
    const Step before = step_;
    Next next = Next::kIncomplete;
    switch (step_) {
      case Step::kSize:
        next = ReadSize(input);
        break;
      case Step::kData:
        if (remaining_ != 0) return input.Empty() ? Next::kIncomplete : Next::kData;
        step_ = Step::kDataEnd;
        break;
      case Step::kDataEnd:
        next = ReadDataEnd(input);
        break;
      case Step::kTrailers:
        next = ReadTrailers(input);
        break;
      case Step::kDone:
        return Next::kEnd;
    }
    if (step_ == before) return next;
  }
}

ZrChunkedDecoder::Next ZrChunkedDecoder::ReadSize(ZrStringBuf& input) {
  const std::string_view line = input.Unread().substr(0, kMaxChunkLine);
  const auto [end, lone] = FindLineEnd(line);
  if (lone) return Next::kNoSize;
  if (end == std::string_view::npos)
    return line.size() == kMaxChunkLine ? Next::kNoSize : Next::kIncomplete;
  const auto size = SizeIn(line.substr(0, end));
  if (!size) return Next::kNoSize;
  input.Consume(end + kLineEnd.size());
  remaining_ = *size;
  step_ = *size == 0 ? Step::kTrailers : Step::kData;
  return Next::kIncomplete;
}

ZrChunkedDecoder::Next ZrChunkedDecoder::ReadDataEnd(ZrStringBuf& input) {
  const std::string_view end = input.Unread().substr(0, kLineEnd.size());
  if (!kLineEnd.starts_with(end)) return Next::kNoEnd;
  if (end.size() < kLineEnd.size()) return Next::kIncomplete;
  input.Consume(kLineEnd.size());
  step_ = Step::kSize;
  return Next::kIncomplete;
}

ZrChunkedDecoder::Next ZrChunkedDecoder::ReadTrailers(ZrStringBuf& input) {
  for (;;) {
    const std::string_view rest = input.Unread().substr(0, kMaxTrailers + 1 - trailerBytes_);
    const auto [end, lone] = FindLineEnd(rest);
    const std::size_t used = end == std::string_view::npos ? rest.size() : end + kLineEnd.size();
    if (lone || trailerBytes_ + used > kMaxTrailers) return Next::kTrailers;
    if (end == std::string_view::npos) return Next::kIncomplete;
    input.Consume(used);
    trailerBytes_ += used;
    if (end != 0) continue;
    step_ = Step::kDone;
    return Next::kEnd;
  }
}
