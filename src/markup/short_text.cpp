#include "markup/short_text.h"

void ZrShortText::StoreLong(std::string_view text) {
  auto* const copy = static_cast<char*>(zr::AllocateNodeMemory(text.size()));
  std::memcpy(copy, text.data(), text.size());
  std::memcpy(bytes_, &copy, sizeof copy);
  // Seven bytes of the size fit; the eighth is the tag.
  std::uint64_t length = text.size();
  for (std::size_t i = sizeof copy; i < kInside; ++i, length >>= 8)
    bytes_[i] = static_cast<char>(length & 0xff);
  bytes_[kInside] = static_cast<char>(kOutside);
}

void ZrShortText::FreeLong() noexcept { zr::FreeNodeMemory(data(), size()); }
