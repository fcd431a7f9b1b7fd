#pragma once
// Runs of characters: text and whitespace.

#include "markup/reader_state.h"

/// "xmltext": everything up to the next "<", whitespace or the end.
class ZrDTDElementRead_Text : public ZrDTDElementRead {
 public:
  ZrDTDElementRead_Text();
  ZrDTDElementRead* Read(ZrDTDElementReader& reader) override;
  std::unique_ptr<ZrDTDElementRead> Clone() const override;
};

/// "xmlwhitespace": a run of whitespace.
class ZrDTDElementRead_WhitespaceText : public ZrDTDElementRead {
 public:
  ZrDTDElementRead_WhitespaceText() : ZrDTDElementRead_WhitespaceText("xmlwhitespace") {}
  ZrDTDElementRead* Read(ZrDTDElementReader& reader) override;
  std::unique_ptr<ZrDTDElementRead> Clone() const override;

 protected:
  explicit ZrDTDElementRead_WhitespaceText(std::string name);
};
