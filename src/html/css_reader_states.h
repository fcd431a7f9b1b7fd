#pragma once
// Tokens of style sheets. Their names put them into the order in which they are tried.

#include "markup/reader_state_text.h"

/// "css_a_whitespace": a run of whitespace.
class ZrDTDElementRead_WhitespaceCSS : public ZrDTDElementRead_WhitespaceText {
 public:
  ZrDTDElementRead_WhitespaceCSS() : ZrDTDElementRead_WhitespaceText("css_a_whitespace") {}
  std::unique_ptr<ZrDTDElementRead> Clone() const override;
};

/// "css_aa_whitespace": exactly "<!--", which opens the bracket old pages put around a sheet.
class ZrDTDElementRead_WhitespaceCSSHTMLComment : public ZrDTDElementRead {
 public:
  ZrDTDElementRead_WhitespaceCSSHTMLComment();
  ZrDTDElementRead* Read(ZrDTDElementReader& reader) override;
  std::unique_ptr<ZrDTDElementRead> Clone() const override;
};

/// "css_aaa_whitespace": exactly "-->", a closing token.
class ZrDTDElementRead_WhitespaceCSSHTMLCommentCloser : public ZrDTDElementRead {
 public:
  ZrDTDElementRead_WhitespaceCSSHTMLCommentCloser();
  ZrDTDElementRead* Read(ZrDTDElementReader& reader) override;
  std::unique_ptr<ZrDTDElementRead> Clone() const override;
  bool IsClosing() const override { return true; }
};

/// "css_b_closer": exactly "}", a closing token.
class ZrDTDElementRead_CloserCSS : public ZrDTDElementRead {
 public:
  ZrDTDElementRead_CloserCSS();
  ZrDTDElementRead* Read(ZrDTDElementReader& reader) override;
  std::unique_ptr<ZrDTDElementRead> Clone() const override;
  bool IsClosing() const override { return !text_.empty() && text_.front() == '}'; }
};

/// "css_c_comment": a comment, its delimiters included in the text.
class ZrDTDElementRead_CommentCSS : public ZrDTDElementRead {
 public:
  ZrDTDElementRead_CommentCSS();
  ZrDTDElementRead* Read(ZrDTDElementReader& reader) override;
  std::unique_ptr<ZrDTDElementRead> Clone() const override;
};

/// "css_d_mediaquery": from "@" up to "{", which is consumed and not kept.
class ZrDTDElementRead_MediaQueryCSS : public ZrDTDElementRead {
 public:
  ZrDTDElementRead_MediaQueryCSS();
  ZrDTDElementRead* Read(ZrDTDElementReader& reader) override;
  std::unique_ptr<ZrDTDElementRead> Clone() const override;
};

/// "css_e_rule": a selector up to "{", which is consumed and not kept.
class ZrDTDElementRead_RuleCSS : public ZrDTDElementRead {
 public:
  ZrDTDElementRead_RuleCSS();
  ZrDTDElementRead* Read(ZrDTDElementReader& reader) override;
  std::unique_ptr<ZrDTDElementRead> Clone() const override;
};

/// "css_f_property": a declaration through ";", or up to "}" and without the whitespace before it.
class ZrDTDElementRead_PropertyCSS : public ZrDTDElementRead {
 public:
  ZrDTDElementRead_PropertyCSS();
  ZrDTDElementRead* Read(ZrDTDElementReader& reader) override;
  std::unique_ptr<ZrDTDElementRead> Clone() const override;
};
