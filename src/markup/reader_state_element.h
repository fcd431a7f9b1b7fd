#pragma once
// Tags.

#include <cstddef>

#include "markup/reader_state.h"

class ReadTransaction;

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

 protected:
  /// What may stand in a tag.
  enum class Grammar {
    kPlain,  // names of letters, digits, "_" and "-"; no blanks around "=" and in end tags
    kXml,    // also ":", "." and bytes above 127 in names, and those blanks
    kPage,   // also values without quotes
  };
  ZrDTDElementRead_Element(std::string name, Grammar grammar);

 private:
  enum class Outcome { kNone, kTag, kIncomplete };

  template <Grammar grammar>
  bool ReadAttribute(ReadTransaction& input, ZrDTDElementReader& reader);
  template <Grammar grammar>
  Outcome ReadTag(ReadTransaction& input, ZrDTDElementReader& reader);
  template <Grammar grammar>
  bool ReadRest(ReadTransaction& input, ZrDTDElementReader& reader);

  const Grammar grammar_;
  std::size_t nameLength_ = 0;  // with the slash of an end tag
};
