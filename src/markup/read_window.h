#pragma once
// The unread bytes of a reader, contiguous, with what earlier attempts found out about them.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

namespace zr {

/// Line feeds in the text.
std::uint64_t CountLineFeeds(std::string_view text);

}  // namespace zr

/// Bytes enter at the back and leave at the front. Positions are relative to the first unread byte;
/// pointers are good until the next MakeRoom().
class ZrReadWindow {
 public:
  std::size_t Unread() const { return end_ - begin_; }
  const char* data() const { return buffer_.get() + begin_; }
  int At(std::size_t position) const { return static_cast<unsigned char>(data()[position]); }

  /// Room behind the unread bytes for at least one more; amortised constant time per byte.
  char* MakeRoom();
  /// Whether the next MakeRoom() moves the bytes.
  bool IsFull() const { return end_ == capacity_; }
  std::size_t Room() const { return capacity_ - end_; }
  void Filled(std::size_t count) { end_ += count; }
  void Consume(std::size_t count) {
    if (counting_) [[unlikely]]
      Uncount(count);
    begin_ += count;
  }

  /// A search for delimiter reached the end of the window from this position in vain. The next one
  /// may begin at the position that KnownFree() answers, so input without the delimiter is searched
  /// once and not once for every attempt.
  void NoteFutile(std::string_view delimiter, std::size_t position);
  /// The first position from the given one on where the delimiter may still begin.
  std::size_t KnownFree(std::string_view delimiter, std::size_t position) const {
    return futile_.empty() ? position : KnownFreeSlow(delimiter, position);
  }

  /// Line feeds among the first count unread bytes. Asked for all bytes again and again, it counts
  /// only those that came or went since.
  std::uint64_t LineFeeds(std::size_t count);

 private:
  struct Futile {
    std::string_view delimiter;  // the literal of the state that searches
    std::uint64_t from;          // stream offsets
    std::uint64_t to;
  };
  static constexpr std::size_t kBlock = std::size_t{32} * 1024;

  [[gnu::cold]] void Uncount(std::size_t count);
  std::size_t KnownFreeSlow(std::string_view delimiter, std::size_t position) const;

  std::unique_ptr<char[]> buffer_;
  std::size_t capacity_ = 0;
  std::size_t begin_ = 0;
  std::size_t end_ = 0;
  std::uint64_t offset_ = 0;    // in the stream, of the buffer's first byte
  std::vector<Futile> futile_;  // one entry a delimiter

  // The stream offset of the first unread byte.
  std::uint64_t Consumed() const { return offset_ + begin_; }

  // While counting_: the line feeds between the first unread byte and the stream offset countedTo_.
  bool counting_ = false;
  std::uint64_t countedTo_ = 0;
  std::uint64_t counted_ = 0;
};
