#include "html/css_reader_states.h"

#include "markup/read_transaction.h"

namespace {

constexpr zr::ByteSet kSelectorStart = zr::ByteSet("_#*.").AddRange('a', 'z').AddRange('A', 'Z');
constexpr zr::ByteSet kDeclarationBytes = zr::ByteSet(";}").Inverted();

}  // namespace

namespace zr::html {

LiteralState::LiteralState(const char* name, std::string_view literal)
    : ZrDTDElementRead(name,
                       {.first = ByteSet(literal.substr(0, 1)),
                        .second = literal.size() > 1 ? ByteSet(literal.substr(1, 1)) : kAnyByte,
                        .reusable = true}),
      literal_(literal) {}

ZrDTDElementRead* LiteralState::Read(ZrDTDElementReader& reader) {
  Begin();
  ReadTransaction input(reader);
  if (input.TakeLiteral(literal_)) {
    text_ = input.Taken();
    return this;
  }
  input.Undo();
  return nullptr;
}

DelimitedState::DelimitedState(const char* name, const Traits& traits, std::string_view delimiter,
                               std::size_t dropped)
    : ZrDTDElementRead(name, traits), delimiter_(delimiter), dropped_(dropped) {}

ZrDTDElementRead* DelimitedState::Read(ZrDTDElementReader& reader) {
  Begin();
  ReadTransaction input(reader);
  if (input.TakeOneOf(FirstBytes()) &&
      (SecondBytes() == kAnyByte || input.TakeOneOf(SecondBytes())) &&
      input.TakeThrough(delimiter_)) {
    text_ = input.Taken();
    text_.remove_suffix(dropped_);
    return this;
  }
  input.Undo();
  return nullptr;
}

}  // namespace zr::html

ZrDTDElementRead_CommentCSS::ZrDTDElementRead_CommentCSS()
    : Cloning("css_c_comment",
              Traits{.first = zr::ByteSet("/"), .second = zr::ByteSet("*"), .reusable = true}, "*/",
              0) {}

ZrDTDElementRead_MediaQueryCSS::ZrDTDElementRead_MediaQueryCSS()
    : Cloning("css_d_mediaquery", Traits{.first = zr::ByteSet("@"), .reusable = true}, "{", 1) {}

ZrDTDElementRead_RuleCSS::ZrDTDElementRead_RuleCSS()
    : Cloning("css_e_rule", Traits{.first = kSelectorStart, .reusable = true}, "{", 1) {}

ZrDTDElementRead_PropertyCSS::ZrDTDElementRead_PropertyCSS()
    : Cloning("css_f_property", Traits{.first = zr::kNameStart, .reusable = true}) {}

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
