#include "html/css_reader_states.h"

#include "markup/read_transaction.h"

namespace {

constexpr zr::ByteSet kSelectorStart = zr::ByteSet("_#*.").AddRange('a', 'z').AddRange('A', 'Z');
constexpr zr::ByteSet kDeclarationBytes = zr::ByteSet(";}").Inverted();

// Recognises exactly these bytes.
bool ReadLiteral(ZrDTDElementReader& reader, std::string_view literal, std::string_view& text) {
  ReadTransaction input(reader);
  for (const char byte : literal) {
    if (input.TakeIf(byte)) continue;
    input.Undo();
    return false;
  }
  text = input.Taken();
  return true;
}

// Recognises a byte of the set and everything up to the next "{", which is not kept.
bool ReadToBrace(ZrDTDElementReader& reader, const zr::ByteSet& first, std::string_view& text) {
  ReadTransaction input(reader);
  if (first.Has(input.Peek()) && input.TakeThrough("{")) {
    text = input.Taken();
    text.remove_suffix(1);
    return true;
  }
  input.Undo();
  return false;
}

}  // namespace

std::unique_ptr<ZrDTDElementRead> ZrDTDElementRead_WhitespaceCSS::Clone() const {
  return std::make_unique<ZrDTDElementRead_WhitespaceCSS>();
}

ZrDTDElementRead_WhitespaceCSSHTMLComment::ZrDTDElementRead_WhitespaceCSSHTMLComment()
    : ZrDTDElementRead("css_aa_whitespace",
                       {.first = zr::ByteSet("<"), .second = zr::ByteSet("!"), .reusable = true}) {}

std::unique_ptr<ZrDTDElementRead> ZrDTDElementRead_WhitespaceCSSHTMLComment::Clone() const {
  return std::make_unique<ZrDTDElementRead_WhitespaceCSSHTMLComment>();
}

ZrDTDElementRead* ZrDTDElementRead_WhitespaceCSSHTMLComment::Read(ZrDTDElementReader& reader) {
  Begin();
  return ReadLiteral(reader, "<!--", text_) ? this : nullptr;
}

ZrDTDElementRead_WhitespaceCSSHTMLCommentCloser::ZrDTDElementRead_WhitespaceCSSHTMLCommentCloser()
    : ZrDTDElementRead("css_aaa_whitespace",
                       {.first = zr::ByteSet("-"), .second = zr::ByteSet("-"), .reusable = true}) {}

std::unique_ptr<ZrDTDElementRead> ZrDTDElementRead_WhitespaceCSSHTMLCommentCloser::Clone() const {
  return std::make_unique<ZrDTDElementRead_WhitespaceCSSHTMLCommentCloser>();
}

ZrDTDElementRead* ZrDTDElementRead_WhitespaceCSSHTMLCommentCloser::Read(
    ZrDTDElementReader& reader) {
  Begin();
  return ReadLiteral(reader, "-->", text_) ? this : nullptr;
}

ZrDTDElementRead_CloserCSS::ZrDTDElementRead_CloserCSS()
    : ZrDTDElementRead("css_b_closer",
                       {.first = zr::ByteSet("}"), .second = zr::kAnyByte, .reusable = true}) {}

std::unique_ptr<ZrDTDElementRead> ZrDTDElementRead_CloserCSS::Clone() const {
  return std::make_unique<ZrDTDElementRead_CloserCSS>();
}

ZrDTDElementRead* ZrDTDElementRead_CloserCSS::Read(ZrDTDElementReader& reader) {
  Begin();
  return ReadLiteral(reader, "}", text_) ? this : nullptr;
}

ZrDTDElementRead_CommentCSS::ZrDTDElementRead_CommentCSS()
    : ZrDTDElementRead("css_c_comment",
                       {.first = zr::ByteSet("/"), .second = zr::ByteSet("*"), .reusable = true}) {}

std::unique_ptr<ZrDTDElementRead> ZrDTDElementRead_CommentCSS::Clone() const {
  return std::make_unique<ZrDTDElementRead_CommentCSS>();
}

ZrDTDElementRead* ZrDTDElementRead_CommentCSS::Read(ZrDTDElementReader& reader) {
  Begin();
  ReadTransaction input(reader);
  if (input.TakeIf('/') && input.TakeIf('*') && input.TakeThrough("*/")) {
    text_ = input.Taken();
    return this;
  }
  input.Undo();
  return nullptr;
}

ZrDTDElementRead_MediaQueryCSS::ZrDTDElementRead_MediaQueryCSS()
    : ZrDTDElementRead("css_d_mediaquery",
                       {.first = zr::ByteSet("@"), .second = zr::kAnyByte, .reusable = true}) {}

std::unique_ptr<ZrDTDElementRead> ZrDTDElementRead_MediaQueryCSS::Clone() const {
  return std::make_unique<ZrDTDElementRead_MediaQueryCSS>();
}

ZrDTDElementRead* ZrDTDElementRead_MediaQueryCSS::Read(ZrDTDElementReader& reader) {
  Begin();
  return ReadToBrace(reader, FirstBytes(), text_) ? this : nullptr;
}

ZrDTDElementRead_RuleCSS::ZrDTDElementRead_RuleCSS()
    : ZrDTDElementRead("css_e_rule",
                       {.first = kSelectorStart, .second = zr::kAnyByte, .reusable = true}) {}

std::unique_ptr<ZrDTDElementRead> ZrDTDElementRead_RuleCSS::Clone() const {
  return std::make_unique<ZrDTDElementRead_RuleCSS>();
}

ZrDTDElementRead* ZrDTDElementRead_RuleCSS::Read(ZrDTDElementReader& reader) {
  Begin();
  return ReadToBrace(reader, FirstBytes(), text_) ? this : nullptr;
}

ZrDTDElementRead_PropertyCSS::ZrDTDElementRead_PropertyCSS()
    : ZrDTDElementRead("css_f_property",
                       {.first = zr::kNameStart, .second = zr::kAnyByte, .reusable = true}) {}

std::unique_ptr<ZrDTDElementRead> ZrDTDElementRead_PropertyCSS::Clone() const {
  return std::make_unique<ZrDTDElementRead_PropertyCSS>();
}

ZrDTDElementRead* ZrDTDElementRead_PropertyCSS::Read(ZrDTDElementReader& reader) {
  Begin();
  ReadTransaction input(reader);
  if (zr::kNameStart.Has(input.Peek())) {
    input.TakeLines(kDeclarationBytes);
    if (input.TakeIf(';')) {
      text_ = input.Taken();
      return this;
    }
    if (input.Peek() == '}') {
      // The whitespace before the brace becomes a token of its own.
      const std::string_view taken = input.Taken();
      const std::size_t length = taken.find_last_not_of(" \t\n\r") + 1;
      text_ = taken.substr(0, length);
      input.GiveBack(taken.size() - length);
      return this;
    }
  }
  input.Undo();
  return nullptr;
}
