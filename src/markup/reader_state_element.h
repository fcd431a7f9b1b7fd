#pragma once
// Tags.

#include <cstddef>

#include "markup/reader_state.h"

/// "xmlelement": a start, end or empty-element tag. The text is the name, with a "/" in front for
/// an end tag; the attributes go to the reader. Read() throws ZrException "incomplete tag 'NAME'"
/// when the name is followed by something that cannot follow it.
class ZrDTDElementRead_Element : public ZrDTDElementRead {
 public:
  ZrDTDElementRead_Element();
  ZrDTDElementRead* Read(ZrDTDElementReader& reader) override;
  std::unique_ptr<ZrDTDElementRead> Clone() const override;
  bool IsClosing() const override { return text_.size() >= 2 && text_.front() == '/'; }
  bool CarriesAttributes() const override { return true; }
  bool ClosesElement(std::string_view name) const override;

 private:
  enum class Outcome { kNone, kTag, kIncomplete };

  // The grammar, for both kinds of input: what is at hand, and what may have to be waited for.
  template <class Input>
  Outcome ReadTag(Input& input, ZrDTDElementReader& reader);
  template <class Input>
  bool ReadRest(Input& input, ZrDTDElementReader& reader);
  ZrDTDElementRead* Recognised(Outcome outcome, std::string_view taken, ZrDTDElementReader& reader);

  std::size_t nameLength_ = 0;  // with the slash of an end tag
};
