#pragma once
// Tokens of style sheets. Their names put them into the order in which they are tried. Two bases do
// the reading: tokens that are always the same bytes, and tokens from a first byte through a
// delimiter.

#include <memory>
#include <string_view>

#include "markup/reader_state_text.h"

namespace zr::html {

/// Makes a state the maker of its own kind.
template <class State, class Base>
class Cloning : public Base {
 public:
  std::unique_ptr<ZrDTDElementRead> Clone() const override { return std::make_unique<State>(); }

 protected:
  using Base::Base;
};

/// A token of exactly these bytes, which are its text.
class LiteralState : public ZrDTDElementRead {
 public:
  ZrDTDElementRead* Read(ZrDTDElementReader& reader) override;

 protected:
  /// The literal is one of the program's.
  LiteralState(const char* name, std::string_view literal);

 private:
  const std::string_view literal_;
};

/// A token that begins with a byte of the first set, and of the second when that is not every byte,
/// and ends with the delimiter. The text is all of it without the last `dropped` bytes.
class DelimitedState : public ZrDTDElementRead {
 public:
  ZrDTDElementRead* Read(ZrDTDElementReader& reader) override;

 protected:
  /// The delimiter is one of the program's.
  DelimitedState(const char* name, const Traits& traits, std::string_view delimiter,
                 std::size_t dropped);

 private:
  const std::string_view delimiter_;
  const std::size_t dropped_;
};

}  // namespace zr::html

/// "css_a_whitespace": a run of whitespace.
class ZrDTDElementRead_WhitespaceCSS
    : public zr::html::Cloning<ZrDTDElementRead_WhitespaceCSS, ZrDTDElementRead_WhitespaceText> {
 public:
  ZrDTDElementRead_WhitespaceCSS() : Cloning("css_a_whitespace") {}
};

/// "css_aa_whitespace": exactly "<!--", which opens the bracket old pages put around a sheet.
class ZrDTDElementRead_WhitespaceCSSHTMLComment
    : public zr::html::Cloning<ZrDTDElementRead_WhitespaceCSSHTMLComment, zr::html::LiteralState> {
 public:
  ZrDTDElementRead_WhitespaceCSSHTMLComment() : Cloning("css_aa_whitespace", "<!--") {}
};

/// "css_aaa_whitespace": exactly "-->", a closing token.
class ZrDTDElementRead_WhitespaceCSSHTMLCommentCloser
    : public zr::html::Cloning<ZrDTDElementRead_WhitespaceCSSHTMLCommentCloser,
                               zr::html::LiteralState> {
 public:
  ZrDTDElementRead_WhitespaceCSSHTMLCommentCloser() : Cloning("css_aaa_whitespace", "-->") {}
  bool IsClosing() const override { return true; }
};

/// "css_b_closer": exactly "}", a closing token.
class ZrDTDElementRead_CloserCSS
    : public zr::html::Cloning<ZrDTDElementRead_CloserCSS, zr::html::LiteralState> {
 public:
  ZrDTDElementRead_CloserCSS() : Cloning("css_b_closer", "}") {}
  bool IsClosing() const override { return !text_.empty(); }
};

/// "css_c_comment": a comment, its delimiters included in the text.
class ZrDTDElementRead_CommentCSS
    : public zr::html::Cloning<ZrDTDElementRead_CommentCSS, zr::html::DelimitedState> {
 public:
  ZrDTDElementRead_CommentCSS();
};

/// "css_d_mediaquery": from "@" up to "{", which is consumed and not kept.
class ZrDTDElementRead_MediaQueryCSS
    : public zr::html::Cloning<ZrDTDElementRead_MediaQueryCSS, zr::html::DelimitedState> {
 public:
  ZrDTDElementRead_MediaQueryCSS();
};

/// "css_e_rule": a selector up to "{", which is consumed and not kept.
class ZrDTDElementRead_RuleCSS
    : public zr::html::Cloning<ZrDTDElementRead_RuleCSS, zr::html::DelimitedState> {
 public:
  ZrDTDElementRead_RuleCSS();
};

/// "css_f_property": a declaration through ";", or up to "}" and without the whitespace before it.
class ZrDTDElementRead_PropertyCSS
    : public zr::html::Cloning<ZrDTDElementRead_PropertyCSS, ZrDTDElementRead> {
 public:
  ZrDTDElementRead_PropertyCSS();
  ZrDTDElementRead* Read(ZrDTDElementReader& reader) override;
};
