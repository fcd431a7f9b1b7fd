#pragma once
// Tokens between fixed delimiters. All fail at an end of input before the closing one.

#include <string_view>

#include "markup/reader_state.h"

/// "xmlcomment": the text is what lies between "<!--" and the next "-->".
class ZrDTDElementRead_Comment : public ZrDTDElementRead {
 public:
  ZrDTDElementRead_Comment();
  ZrDTDElementRead* Read(ZrDTDElementReader& reader) override;
  std::unique_ptr<ZrDTDElementRead> Clone() const override;
};

/// "xmlprocinst": the text is what lies between "<?" and the next "?>".
class ZrDTDElementRead_ProcInst : public ZrDTDElementRead {
 public:
  ZrDTDElementRead_ProcInst();
  ZrDTDElementRead* Read(ZrDTDElementReader& reader) override;
  std::unique_ptr<ZrDTDElementRead> Clone() const override;
};

/// "htmldoctype": the text is what lies between "<!DOCTYPE " (upper case, one blank) and ">".
class ZrDTDElementRead_Doctype : public ZrDTDElementRead {
 public:
  ZrDTDElementRead_Doctype();
  ZrDTDElementRead* Read(ZrDTDElementReader& reader) override;
  std::unique_ptr<ZrDTDElementRead> Clone() const override;
  /// Whether the byte continues the keyword of which Text() has been read; no past its end.
  virtual bool MatchesKeywordAt(int byte) const;
};
