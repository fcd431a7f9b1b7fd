#pragma once
// How velkoro::Document reads. These document kinds are wider than the plain ones: names with ":"
// and ".", blanks where XML allows them, document types, CDATA sections; and pages as they are
// written, with void tags, values without quotes and names in any case. What they make are plain
// nodes that stand on no lines of their own, so that writing gives back what was read.
// Not for use outside the document facade.

#include <memory>
#include <span>
#include <string_view>

#include "markup/dtd.h"
#include "markup/xml_nodes.h"

namespace zr {

inline constexpr char kXmlDocument[] = "document-xml";
inline constexpr char kPageDocument[] = "document-page";

std::span<const ZrDTDDefinition> FacadeKinds();

/// An element as the kinds make it; a page's is void or holds plain text where its name says so.
std::unique_ptr<ZrXMLGenericElement> MakeFacadeElement(ZrNameView name, bool page);

/// "<!DOCTYPE ...>": the text is what stands between "<!" and ">".
class DoctypeNode : public ZrXMLTextCarrier {
 public:
  explicit DoctypeNode(std::string_view text);
  void Write(std::ostream& stream) const override;
};

/// "<![CDATA[...]]>".
class CdataNode : public ZrXMLTextCarrier {
 public:
  explicit CdataNode(std::string_view text);
  void Write(std::ostream& stream) const override;
};

/// An element of a page whose content is text up to its end tag.
class RawElement : public ZrXMLGenericElement {
 public:
  RawElement(ZrNameView name, const char* contentKind);
  /// Tells the parser the kind of the content.
  std::string Value(ZrNameView newValue) override;
  /// Whether references in the text stay as they are: in scripts and styles.
  bool IsCode() const;

 private:
  const char* const contentKind_;
};

}  // namespace zr
