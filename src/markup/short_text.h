#pragma once
// The text of one node or attribute. Documents consist of short runs (words, blanks, numbers): up
// to 15 bytes lie in the object, longer ones in node memory. Not for use outside the node classes.

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "markup/node_memory.h"

class ZrShortText {
 public:
  ZrShortText() : bytes_{} {}
  explicit ZrShortText(std::string_view text) { Store(text); }
  ZrShortText(const ZrShortText&) = delete;
  ZrShortText& operator=(const ZrShortText&) = delete;
  ~ZrShortText() { Free(); }

  /// A text of which sixteen bytes may be read, however short it is, and the piece of its size
  /// where it goes when it is longer than kInside.
  struct Source {
    const char* text;
    std::size_t size;
    void* piece;
  };
  static constexpr std::size_t kInside = 15;
  explicit ZrShortText(const Source& source) noexcept {
    if (source.size > kInside) {
      std::memcpy(source.piece, source.text, source.size);
      KeepPiece(static_cast<char*>(source.piece), source.size);
    } else {
      std::memcpy(bytes_, source.text, sizeof bytes_);
      bytes_[kInside] = static_cast<char>(source.size);
    }
  }

  std::string_view view() const {
    const auto tag = static_cast<unsigned char>(bytes_[kInside]);
    return tag != kOutside ? std::string_view(bytes_, tag) : std::string_view(data(), size());
  }
  /// The text may be a part of this one.
  void Assign(std::string_view text) {
    const ZrShortText old(*this, Take());
    Store(text);
  }

 private:
  struct Take {};
  static constexpr unsigned char kOutside = 0xff;  // the tag of a text in node memory

  // Takes the bytes over and leaves nothing to free.
  ZrShortText(ZrShortText& other, Take) {
    std::memcpy(bytes_, other.bytes_, sizeof bytes_);
    other.bytes_[kInside] = 0;
  }
  void Store(std::string_view text) {
    if (text.size() <= kInside) {
      CopyShort(text.data(), text.size());
      bytes_[kInside] = static_cast<char>(text.size());
      return;
    }
    StoreLong(text);
  }
  void StoreLong(std::string_view text);
  void KeepPiece(char* piece, std::size_t length) {
    std::memcpy(bytes_, &piece, sizeof piece);
    // Seven bytes of the size fit; the eighth is the tag.
    for (std::size_t i = sizeof piece; i < kInside; ++i, length >>= 8)
      bytes_[i] = static_cast<char>(length & 0xff);
    bytes_[kInside] = static_cast<char>(kOutside);
  }
  // Two loads, which may overlap, before any store: the source may be these very bytes.
  template <class Word>
  void CopyEnds(const char* from, std::size_t count) {
    Word head;
    Word tail;
    std::memcpy(&head, from, sizeof head);
    std::memcpy(&tail, from + count - sizeof tail, sizeof tail);
    std::memcpy(bytes_, &head, sizeof head);
    std::memcpy(bytes_ + count - sizeof tail, &tail, sizeof tail);
  }
  void CopyShort(const char* from, std::size_t count) {
    if (count >= 8)
      CopyEnds<std::uint64_t>(from, count);
    else if (count >= 4)
      CopyEnds<std::uint32_t>(from, count);
    else if (count >= 2)
      CopyEnds<std::uint16_t>(from, count);
    else if (count == 1)
      bytes_[0] = *from;
  }
  std::size_t size() const {
    std::size_t length = 0;
    for (std::size_t i = kInside; i-- > 8;)
      length = length << 8 | static_cast<unsigned char>(bytes_[i]);
    return length;
  }
  char* data() const {
    char* copy;
    std::memcpy(&copy, bytes_, sizeof copy);
    return copy;
  }
  void FreeLong() noexcept;
  void Free() {
    if (static_cast<unsigned char>(bytes_[kInside]) == kOutside) FreeLong();
  }

  alignas(char*) char bytes_[kInside + 1];
};
