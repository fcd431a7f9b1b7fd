#pragma once
// The node kinds of an XML document beside its elements. All are built with ownLine false, so that
// writing puts no line breaks of its own around them.

#include <ostream>
#include <string_view>

#include "markup/generic_element.h"
#include "markup/short_text.h"

/// Root of a document, named "xmldocument"; writes only its children.
class ZrXML_Document2 : public ZrXMLGenericElement {
 public:
  ZrXML_Document2();
  void Write(std::ostream& stream) const override;
};

/// Base of the kinds that carry a text, which is kept without change.
class ZrXMLTextCarrier : public ZrXMLGenericElement {
 public:
  std::string_view text() const { return text_.view(); }

 protected:
  ZrXMLTextCarrier(ZrNameView name, std::string_view text)
      : ZrXMLGenericElement(name, false), text_(text) {}
  ZrXMLTextCarrier(const AsRead& read, const ZrShortText::Source& text) noexcept
      : ZrXMLGenericElement(read), text_(text) {}

 private:
  const ZrShortText text_;
};

/// Processing instruction, named "procinst": written between "<?" and "?>".
class ZrXML_ProcInst2 : public ZrXMLTextCarrier {
 public:
  explicit ZrXML_ProcInst2(std::string_view text);
  void Write(std::ostream& stream) const override;
};

/// XML declaration: in all but its type a processing instruction.
class ZrXML_Declaration2 : public ZrXML_ProcInst2 {
 public:
  using ZrXML_ProcInst2::ZrXML_ProcInst2;
};

/// Comment, named "comment": written between "<!--" and "-->".
class ZrXML_Comment2 : public ZrXMLTextCarrier {
 public:
  explicit ZrXML_Comment2(std::string_view text);
  void Write(std::ostream& stream) const override;
};

/// Character data, named "xmltext": written as it is.
class ZrXMLGenericText : public ZrXMLTextCarrier {
 public:
  explicit ZrXMLGenericText(std::string_view text);
  void Write(std::ostream& stream) const override;

 private:
  friend class zr::PlainReader;
  static const ZrPermanentName kName;  // every one of a document bears it, so it is not counted
  explicit ZrXMLGenericText(const ZrShortText::Source& text) noexcept
      : ZrXMLTextCarrier({kName.text()}, text) {}
};

/// Whitespace run, named "xmlwhitespace": written as it is.
class ZrXMLGenericWhitespace : public ZrXMLTextCarrier {
 public:
  explicit ZrXMLGenericWhitespace(std::string_view text);
  void Write(std::ostream& stream) const override;

 private:
  friend class zr::PlainReader;
  static const ZrPermanentName kName;  // every one of a document bears it, so it is not counted
  explicit ZrXMLGenericWhitespace(const ZrShortText::Source& text) noexcept
      : ZrXMLTextCarrier({kName.text()}, text) {}
};
