#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

#include "markup/byte_set.h"

/// The operations of a ReadTransaction that a tag needs, over the bytes that a reader has at hand
/// and no others: a few registers instead of a window that may move. When it runs out of bytes
/// nothing it said counts, and the attempt is made again with a transaction.
class WindowCursor {
 public:
  explicit WindowCursor(std::string_view unread)
      : first_(unread.data()), next_(first_), end_(first_ + unread.size()) {}

  bool RanOut() const { return ranOut_; }
  std::uint64_t LineFeeds() const { return lineFeeds_; }

  int Peek() {
    if (next_ != end_) return static_cast<unsigned char>(*next_);
    ranOut_ = true;
    return -1;
  }
  bool TakeIf(char byte) {
    if (Peek() != static_cast<unsigned char>(byte)) return false;
    ++next_;
    return true;
  }
  std::string_view TakeRun(const zr::ByteSet& set) {
    const char* const start = next_;
    while (next_ != end_ && set.Has(*next_)) ++next_;
    ranOut_ = ranOut_ || next_ == end_;
    return From(start);
  }
  std::string_view TakeWhitespace() {
    const char* const start = next_;
    for (; next_ != end_ && zr::kWhitespace.Has(*next_); ++next_) lineFeeds_ += *next_ == '\n';
    ranOut_ = ranOut_ || next_ == end_;
    return From(start);
  }
  std::optional<std::string_view> TakeQuoted(char quote) {
    const char* const start = next_;
    for (; next_ != end_; ++next_) {
      if (*next_ == quote)
        return std::string_view(start, static_cast<std::size_t>(next_++ - start));
      lineFeeds_ += *next_ == '\n';
    }
    ranOut_ = true;
    return std::nullopt;
  }
  std::string_view Taken() const { return From(first_); }

 private:
  std::string_view From(const char* start) const {
    return std::string_view(start, static_cast<std::size_t>(next_ - start));
  }

  const char* const first_;
  const char* next_;
  const char* const end_;
  std::uint64_t lineFeeds_ = 0;
  bool ranOut_ = false;
};
