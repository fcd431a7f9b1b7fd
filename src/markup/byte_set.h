#pragma once
// Sets of bytes for the reader states: one look into a table decides.

#include <array>
#include <cstddef>
#include <string_view>

namespace zr {

class ByteSet {
 public:
  constexpr ByteSet() = default;
  explicit constexpr ByteSet(std::string_view bytes) { Add(bytes); }

  constexpr ByteSet& Add(std::string_view bytes) {
    for (const char c : bytes) has_[static_cast<unsigned char>(c)] = true;
    return *this;
  }
  constexpr ByteSet& AddRange(char first, char last) {
    for (unsigned c = static_cast<unsigned char>(first); c <= static_cast<unsigned char>(last); ++c)
      has_[c] = true;
    return *this;
  }
  constexpr ByteSet Inverted() const {
    ByteSet inverted;
    for (std::size_t i = 0; i < has_.size(); ++i) inverted.has_[i] = !has_[i];
    return inverted;
  }
  friend constexpr bool operator==(const ByteSet&, const ByteSet&) = default;
  constexpr bool Has(char c) const { return has_[static_cast<unsigned char>(c)]; }
  /// For what a Peek() answers: the end of input is in no set.
  constexpr bool Has(int peeked) const {
    return peeked >= 0 && has_[static_cast<std::size_t>(peeked) & 0xff];
  }

 private:
  std::array<bool, 256> has_{};
};

/// Whitespace of every document kind: vertical tab and form feed are none.
inline constexpr ByteSet kWhitespace(" \t\n\r");
inline constexpr ByteSet kNameStart = ByteSet("_").AddRange('a', 'z').AddRange('A', 'Z');
inline constexpr ByteSet kNameBytes =
    ByteSet("_-").AddRange('a', 'z').AddRange('A', 'Z').AddRange('0', '9');
/// As XML has them: also ":", "." and every byte that is not ASCII.
inline constexpr ByteSet kXmlNameStart =
    ByteSet(kNameStart).Add(":").AddRange(static_cast<char>(0x80), static_cast<char>(0xff));
inline constexpr ByteSet kXmlNameBytes = ByteSet(kXmlNameStart).Add("-.").AddRange('0', '9');
inline constexpr ByteSet kAnyByte = ByteSet().Inverted();

}  // namespace zr
