#pragma once
// Sixteen bytes looked at in one go: where a run of bytes of one class ends. Loads take sixteen
// bytes from where they begin, whatever lies there.

#include <bit>
#include <cstdint>
#include <cstring>

namespace zr {

/// Sixteen bytes, and what is asked of each of them: all bits of an answer's byte are set or none.
using Bytes16 = std::uint8_t __attribute__((vector_size(16)));

inline Bytes16 Load16(const char* from) {
  Bytes16 bytes;
  std::memcpy(&bytes, from, sizeof bytes);
  return bytes;
}

/// One bit for each byte of an answer, the first byte's the lowest.
inline unsigned BitsOf(Bytes16 answer) {
#ifdef __SSE2__
  using Chars = char __attribute__((vector_size(16)));
  return static_cast<unsigned>(__builtin_ia32_pmovmskb128(reinterpret_cast<Chars>(answer)));
#else
  unsigned bits = 0;
  for (unsigned i = 0; i < 16; ++i) bits |= (answer[i] & 1u) << i;
  return bits;
#endif
}

inline Bytes16 Equal(Bytes16 bytes, char byte) {
  return reinterpret_cast<Bytes16>(bytes == static_cast<std::uint8_t>(byte));
}
inline Bytes16 Between(Bytes16 bytes, char first, char last) {
  const auto from = static_cast<std::uint8_t>(first);
  return reinterpret_cast<Bytes16>(static_cast<Bytes16>(bytes - from) <=
                                   static_cast<std::uint8_t>(last - first));
}

/// Blank, tab, line feed, carriage return.
inline Bytes16 AreWhitespace(Bytes16 bytes) {
  return Equal(bytes, ' ') | Equal(bytes, '\n') | Equal(bytes, '\t') | Equal(bytes, '\r');
}
/// What ends a text.
inline Bytes16 EndText(Bytes16 bytes) { return AreWhitespace(bytes) | Equal(bytes, '<'); }
/// kNameBytes, and kXmlNameBytes.
template <bool plain>
inline Bytes16 AreOfName(Bytes16 bytes) {
  const Bytes16 answer = Between(bytes | static_cast<std::uint8_t>(0x20), 'a', 'z') |
                         Between(bytes, '0', '9') | Equal(bytes, '_') | Equal(bytes, '-');
  if (plain) return answer;
  return answer | Equal(bytes, ':') | Equal(bytes, '.') |
         Between(bytes, static_cast<char>(0x80), static_cast<char>(0xff));
}

}  // namespace zr
