#include "markup/reader_state_bracketed.h"

#include "markup/read_transaction.h"

namespace {

// Reads a whole token into text; undoes it all when something is missing.
bool ReadBracketed(ReadTransaction& input, std::string_view opening, std::string_view closing,
                   std::string_view& text) {
  if (input.TakeLiteral(opening)) {
    if (const auto inside = input.TakeThrough(closing)) {
      text = *inside;
      return true;
    }
  }
  input.Undo();
  return false;
}

}  // namespace

ZrDTDElementRead_Comment::ZrDTDElementRead_Comment()
    : ZrDTDElementRead("xmlcomment", {.first = zr::ByteSet("<"),
                                      .second = zr::ByteSet("!"),
                                      .reusable = true,
                                      .plain = true}) {}

std::unique_ptr<ZrDTDElementRead> ZrDTDElementRead_Comment::Clone() const {
  return std::make_unique<ZrDTDElementRead_Comment>();
}

ZrDTDElementRead* ZrDTDElementRead_Comment::Read(ZrDTDElementReader& reader) {
  Begin();
  ReadTransaction input(reader);
  return ReadBracketed(input, "<!--", "-->", text_) ? this : nullptr;
}

ZrDTDElementRead_ProcInst::ZrDTDElementRead_ProcInst()
    : ZrDTDElementRead("xmlprocinst", {.first = zr::ByteSet("<"),
                                       .second = zr::ByteSet("?"),
                                       .reusable = true,
                                       .plain = true}) {}

std::unique_ptr<ZrDTDElementRead> ZrDTDElementRead_ProcInst::Clone() const {
  return std::make_unique<ZrDTDElementRead_ProcInst>();
}

ZrDTDElementRead* ZrDTDElementRead_ProcInst::Read(ZrDTDElementReader& reader) {
  Begin();
  ReadTransaction input(reader);
  return ReadBracketed(input, "<?", "?>", text_) ? this : nullptr;
}

ZrDTDElementRead_Doctype::ZrDTDElementRead_Doctype()
    : ZrDTDElementRead("htmldoctype", {.first = zr::ByteSet("<"),
                                       .second = zr::ByteSet("!"),
                                       .reusable = true,
                                       .plain = true}) {}

std::unique_ptr<ZrDTDElementRead> ZrDTDElementRead_Doctype::Clone() const {
  return std::make_unique<ZrDTDElementRead_Doctype>();
}

bool ZrDTDElementRead_Doctype::MatchesKeywordAt(int byte) const {
  constexpr std::string_view kKeyword = "<!DOCTYPE ";
  return text_.size() < kKeyword.size() && byte == kKeyword[text_.size()];
}

ZrDTDElementRead* ZrDTDElementRead_Doctype::Read(ZrDTDElementReader& reader) {
  Begin();
  ReadTransaction input(reader);
  while (MatchesKeywordAt(input.Peek())) {
    input.Get(false);
    text_ = input.Taken();
  }
  if (text_.size() == 10) {
    if (const auto type = input.TakeThrough(">")) {
      text_ = *type;
      return this;
    }
  }
  input.Undo();
  return nullptr;
}
