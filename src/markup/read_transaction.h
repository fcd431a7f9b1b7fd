#pragma once

#include <cstddef>
#include <optional>
#include <string_view>

#include "markup/byte_set.h"
#include "markup/element_reader.h"

// Tokens are a few bytes long: what is taken is taken in place.
#define ZR_INLINE [[gnu::always_inline]] inline

/// One attempt of a reader state: a cursor over the reader's unread bytes. What it takes stays in
/// the reader until the transaction ends: the bytes before the cursor are then consumed, the others
/// are unread again. A state that fails calls Undo(). One transaction at a time; the texts it
/// answers are good until its next operation.
///
/// The cursor is three pointers into the window. Only when it stands at the end of what the source
/// has delivered does it ask for more, and the window may move.
class ReadTransaction {
 public:
  ZR_INLINE explicit ReadTransaction(ZrDTDElementReader& reader) : reader_(reader) { Rebase(0, 0); }
  ReadTransaction(const ReadTransaction&) = delete;
  ReadTransaction& operator=(const ReadTransaction&) = delete;
  ZR_INLINE ~ReadTransaction() {
    reader_.line_ += lineFeeds_;
    window().Consume(Offset(next_));
  }

  /// The next byte (0 to 255), -1 at the end.
  ZR_INLINE int Peek() { return next_ != end_ || More() ? static_cast<unsigned char>(*next_) : -1; }
  /// Takes the next byte; at the end answers -1, with a line on standard error unless endAllowed,
  /// and takes a byte of that value all the same.
  int Get(bool endAllowed);
  /// Steps back over the last count bytes. More than were taken: a line on standard error, nothing
  /// changes.
  void GiveBack(std::size_t count);
  /// Steps back over all.
  void Undo() { next_ = first_; }

  /// Takes the next byte when it is this one, which is no line feed.
  ZR_INLINE bool TakeIf(char byte) {
    if (Peek() != static_cast<unsigned char>(byte)) return false;
    AdvanceTo(next_ + 1);
    return true;
  }
  /// Takes the next byte when it is one of the set, which holds no line feed.
  ZR_INLINE bool TakeOneOf(const zr::ByteSet& set) {
    if (!set.Has(Peek())) return false;
    AdvanceTo(next_ + 1);
    return true;
  }
  /// Takes the bytes of the literal, which holds no line feed, as far as they match; whether all
  /// do.
  bool TakeLiteral(std::string_view literal) {
    for (const char byte : literal)
      if (!TakeIf(byte)) return false;
    return true;
  }
  /// Takes the longest run of bytes of the set, which holds no line feed.
  ZR_INLINE std::string_view TakeRun(const zr::ByteSet& set) {
    const std::size_t start = Offset(next_);
    do {
      const char* p = next_;
      while (p != end_ && set.Has(*p)) ++p;
      AdvanceTo(p);
    } while (next_ == end_ && More());
    return From(start);
  }
  /// Takes the longest run of whitespace.
  ZR_INLINE std::string_view TakeWhitespace() {
    if (next_ != furthest_) return TakeLines(zr::kWhitespace);
    const std::size_t start = Offset(next_);
    do {
      const char* p = next_;
      for (; p != end_ && zr::kWhitespace.Has(*p); ++p) lineFeeds_ += *p == '\n';
      AdvanceTo(p);
    } while (next_ == end_ && More());
    return From(start);
  }
  /// Takes the longest run of bytes of the set, which may hold line feeds.
  std::string_view TakeLines(const zr::ByteSet& set);
  /// Everything taken so far and not given back.
  std::string_view Taken() const { return From(0); }
  /// Takes everything up to and including the delimiter and answers what lies before it. Without
  /// one, takes all there is and answers nothing; input that was searched in vain is not searched
  /// again by the next attempt. The delimiter is a literal.
  std::optional<std::string_view> TakeThrough(std::string_view delimiter);
  /// The same for a quote that is probably near.
  ZR_INLINE std::optional<std::string_view> TakeQuoted(char quote) {
    const char* const start = next_;
    const char* const near = end_ - start > 64 ? start + 64 : end_;
    std::uint64_t lineFeeds = 0;
    for (const char* p = start; p != near; ++p) {
      if (*p == quote) {
        if (next_ == furthest_) lineFeeds_ += lineFeeds;
        AdvanceTo(p + 1);
        return std::string_view(start, static_cast<std::size_t>(p - start));
      }
      lineFeeds += *p == '\n';
    }
    return TakeThrough(quote == '"' ? "\"" : "'");
  }

 private:
  ZrReadWindow& window() { return reader_.window_; }
  std::size_t Offset(const char* place) const { return static_cast<std::size_t>(place - first_); }
  std::string_view From(std::size_t start) const {
    return std::string_view(first_ + start, Offset(next_) - start);
  }
  // The same places in the window as it lies now.
  void Rebase(std::size_t next, std::size_t furthest) {
    first_ = window().data();
    end_ = first_ + window().Unread();
    next_ = first_ + next;
    furthest_ = first_ + furthest;
  }
  // Asks the source for more. No: it has no more.
  [[gnu::noinline, gnu::cold]] bool More();
  // Over bytes that hold no line feed, or whose line feeds are counted.
  void AdvanceTo(const char* place) {
    next_ = place;
    if (next_ > furthest_) furthest_ = next_;
  }
  // Over any bytes. Only bytes taken for the first time in this transaction count.
  void AdvanceCounting(const char* place);

  ZrDTDElementReader& reader_;
  const char* first_;
  const char* next_;
  const char* end_;
  const char* furthest_;         // that was taken
  std::uint64_t lineFeeds_ = 0;  // among the bytes taken
};

#undef ZR_INLINE
