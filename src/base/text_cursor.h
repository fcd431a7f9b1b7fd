#pragma once
// Writes a text into memory that was made for all of it: a piece costs its copy and nothing else.

#include <charconv>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace zr {

/// The caller has made room for what it adds.
class TextCursor {
 public:
  /// Of a number.
  static constexpr std::size_t kMostDigits = 20;

  explicit TextCursor(char* start) : end_(start) {}

  void Add(std::string_view text) {
    if (text.empty()) return;
    std::memcpy(end_, text.data(), text.size());
    end_ += text.size();
  }
  void Add(char byte) { *end_++ = byte; }
  void AddNumber(std::uint64_t number) {
    end_ = std::to_chars(end_, end_ + kMostDigits, number).ptr;
  }

  char* End() const { return end_; }

 private:
  char* end_;
};

}  // namespace zr
