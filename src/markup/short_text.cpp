#include "markup/short_text.h"

void ZrShortText::StoreLong(std::string_view text) {
  auto* const copy = static_cast<char*>(zr::AllocateNodeMemory(text.size()));
  std::memcpy(copy, text.data(), text.size());
  KeepPiece(copy, text.size());
}

void ZrShortText::FreeLong() noexcept { zr::FreeNodeMemory(data(), size()); }
