#pragma once

#include <algorithm>
#include <cstddef>
#include <optional>
#include <string_view>

#include "markup/byte_set.h"
#include "markup/element_reader.h"

/// One attempt of a reader state. What it takes stays in the reader until the transaction ends: the
/// bytes before its position are then consumed, the others are unread again. A state that fails
/// calls Undo(). One transaction at a time; the texts it answers are good until its next operation.
class ReadTransaction {
 public:
  explicit ReadTransaction(ZrDTDElementReader& reader) : reader_(reader) {}
  ReadTransaction(const ReadTransaction&) = delete;
  ReadTransaction& operator=(const ReadTransaction&) = delete;
  ~ReadTransaction() {
    reader_.line_ += uncounted_ ? window().LineFeeds(taken_) : lineFeeds_;
    window().Consume(position_);
  }

  /// The next byte (0 to 255), -1 at the end.
  int Peek() {
    if (position_ == window().Unread() && !reader_.More()) return -1;
    return window().At(position_);
  }
  /// Takes the next byte; at the end answers -1, with a line on standard error unless endAllowed,
  /// and takes a byte of that value all the same.
  int Get(bool endAllowed);
  /// Steps back over the last count bytes. More than were taken: a line on standard error, nothing
  /// changes.
  void GiveBack(std::size_t count);
  /// Steps back over all.
  void Undo() { position_ = 0; }

  /// Takes the next byte when it is this one, which is no line feed.
  bool TakeIf(char byte) {
    if (Peek() != static_cast<unsigned char>(byte)) return false;
    Advance(1);
    return true;
  }
  /// Takes the longest run of bytes of the set, which holds no line feed.
  std::string_view TakeRun(const zr::ByteSet& set) {
    const std::size_t count = MeasureRun(set);
    Advance(count);
    return Last(count);
  }
  /// Takes the longest run of whitespace.
  std::string_view TakeWhitespace() {
    if (position_ != taken_) return TakeLines(zr::kWhitespace);
    std::size_t count = 0;
    for (;;) {
      const char* const first = window().data() + position_;
      const std::size_t available = window().Unread() - position_;
      while (count < available && zr::kWhitespace.Has(first[count])) {
        lineFeeds_ += first[count++] == '\n';
      }
      if (count < available || !reader_.More()) break;
    }
    Advance(count);
    return Last(count);
  }
  /// Takes the longest run of bytes of the set, which may hold line feeds.
  std::string_view TakeLines(const zr::ByteSet& set) {
    const std::size_t count = MeasureRun(set);
    AdvanceCounting(count);
    return Last(count);
  }
  /// Everything taken so far and not given back.
  std::string_view Taken() { return Last(position_); }
  /// Takes everything up to and including the delimiter and answers what lies before it. Without
  /// one, takes all there is and answers nothing; input that was searched in vain is not searched
  /// again by the next attempt. The delimiter is a literal.
  std::optional<std::string_view> TakeThrough(std::string_view delimiter);
  /// The same for a quote that is probably near.
  std::optional<std::string_view> TakeQuoted(char quote) {
    const char* const first = window().data() + position_;
    const std::size_t near = std::min<std::size_t>(window().Unread() - position_, 64);
    std::uint64_t lineFeeds = 0;
    for (std::size_t count = 0; count < near; ++count) {
      if (first[count] == quote) {
        if (position_ == taken_) lineFeeds_ += lineFeeds;
        Advance(count + 1);
        return std::string_view(first, count);
      }
      lineFeeds += first[count] == '\n';
    }
    return TakeThrough(quote == '"' ? "\"" : "'");
  }

 private:
  ZrReadWindow& window() { return reader_.window_; }
  std::string_view Last(std::size_t count) {
    return std::string_view(window().data() + position_ - count, count);
  }
  std::size_t MeasureRun(const zr::ByteSet& set) {
    std::size_t count = 0;
    for (;;) {
      const char* const first = window().data() + position_;
      const std::size_t available = window().Unread() - position_;
      while (count < available && set.Has(first[count])) ++count;
      if (count < available || !reader_.More()) return count;
    }
  }
  // Over bytes that hold no line feed.
  void Advance(std::size_t count) {
    position_ += count;
    if (position_ > taken_) taken_ = position_;
  }
  // Over any bytes. Only bytes taken for the first time in this transaction count.
  void AdvanceCounting(std::size_t count);

  ZrDTDElementReader& reader_;
  std::size_t position_ = 0;
  std::size_t taken_ = 0;        // the furthest position
  std::uint64_t lineFeeds_ = 0;  // among the bytes taken
  bool uncounted_ = false;       // all of them are still to be counted, lineFeeds_ is void
};
