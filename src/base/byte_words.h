#pragma once
// Bytes of texts taken eight at a time, as the searches that every request pays for do.

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace zr {

static_assert(std::endian::native == std::endian::little);

/// The first bytes of the text, at most eight, the first one lowest; zeroes where it is shorter.
inline std::uint64_t FirstWord(std::string_view text) {
  const char* const start = text.data();
  const std::size_t size = text.size();
  if (size >= 8) {
    std::uint64_t word = 0;
    std::memcpy(&word, start, 8);
    return word;
  }
  if (size >= 4) {
    std::uint32_t first = 0;
    std::uint32_t last = 0;
    std::memcpy(&first, start, 4);
    std::memcpy(&last, start + size - 4, 4);
    return first | std::uint64_t{last} << (8 * (size - 4));
  }
  if (size == 0) return 0;
  const auto byte = [start](std::size_t at) {
    return std::uint64_t{static_cast<unsigned char>(start[at])} << (8 * at);
  };
  return byte(0) | byte(size / 2) | byte(size - 1);
}

/// That byte in all eight places.
constexpr std::uint64_t EightTimes(unsigned char byte) { return byte * 0x0101010101010101u; }

/// Whether any of the eight bytes is below that one, which is at most 0x80.
constexpr bool AnyBelow(std::uint64_t word, unsigned char least) {
  return ((word - EightTimes(least)) & ~word & EightTimes(0x80)) != 0;
}
constexpr bool AnyIs(std::uint64_t word, unsigned char byte) {
  return AnyBelow(word ^ EightTimes(byte), 1);
}

/// Whether each word of the text is fine with the question; one that is shorter than eight bytes is
/// filled up with '!'.
template <class Question>
bool AllWords(std::string_view text, Question fine) {
  while (text.size() > 8) {
    if (!fine(FirstWord(text))) return false;
    text.remove_prefix(8);
  }
  const std::uint64_t filler = text.size() == 8 ? 0 : EightTimes('!') << (8 * text.size());
  return fine(FirstWord(text) | filler);
}

}  // namespace zr
