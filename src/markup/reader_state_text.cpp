#include "markup/reader_state_text.h"

#include "markup/read_transaction.h"

namespace {

constexpr zr::ByteSet kTextBytes = zr::ByteSet("< \t\n\r").Inverted();

}  // namespace

ZrDTDElementRead_Text::ZrDTDElementRead_Text()
    : ZrDTDElementRead(
          "xmltext",
          {.first = kTextBytes, .second = zr::kAnyByte, .reusable = true, .plain = true}) {}

std::unique_ptr<ZrDTDElementRead> ZrDTDElementRead_Text::Clone() const {
  return std::make_unique<ZrDTDElementRead_Text>();
}

ZrDTDElementRead* ZrDTDElementRead_Text::Read(ZrDTDElementReader& reader) {
  Begin();
  ReadTransaction input(reader);
  text_ = input.TakeRun(kTextBytes);
  return text_.empty() ? nullptr : this;
}

ZrDTDElementRead_WhitespaceText::ZrDTDElementRead_WhitespaceText(std::string name)
    : ZrDTDElementRead(
          std::move(name),
          {.first = zr::kWhitespace, .second = zr::kAnyByte, .reusable = true, .plain = true}) {}

std::unique_ptr<ZrDTDElementRead> ZrDTDElementRead_WhitespaceText::Clone() const {
  return std::make_unique<ZrDTDElementRead_WhitespaceText>();
}

ZrDTDElementRead* ZrDTDElementRead_WhitespaceText::Read(ZrDTDElementReader& reader) {
  Begin();
  ReadTransaction input(reader);
  text_ = input.TakeWhitespace();
  return text_.empty() ? nullptr : this;
}
