#include "markup/xml_nodes.h"

#include "markup/write.h"

namespace {

// Every text of a document bears one of these, so they are not counted.
const ZrPermanentName kDocument("xmldocument");
const ZrPermanentName kProcInst("procinst");
const ZrPermanentName kComment("comment");
const ZrPermanentName kText("xmltext");
const ZrPermanentName kWhitespace("xmlwhitespace");

}  // namespace

ZrXML_Document2::ZrXML_Document2() : ZrXMLGenericElement(kDocument, false) {}

void ZrXML_Document2::Write(std::ostream& stream) const {
  WritePrologue(stream);
  for (const ZrXMLComplexElement* child : Children()) child->Write(stream);
}

ZrXML_ProcInst2::ZrXML_ProcInst2(std::string_view text) : ZrXMLTextCarrier(kProcInst, text) {}

void ZrXML_ProcInst2::Write(std::ostream& stream) const {
  WritePrologue(stream);
  zr::TagWriter tag(stream);
  tag << "<?" << text() << "?>";
  tag.Flush();
}

ZrXML_Comment2::ZrXML_Comment2(std::string_view text) : ZrXMLTextCarrier(kComment, text) {}

void ZrXML_Comment2::Write(std::ostream& stream) const {
  WritePrologue(stream);
  zr::TagWriter tag(stream);
  tag << "<!--" << text() << "-->";
  tag.Flush();
}

ZrXMLGenericText::ZrXMLGenericText(std::string_view text) : ZrXMLTextCarrier(kText, text) {}

ZrXMLGenericText::ZrXMLGenericText(const ZrShortText::Source& text) noexcept
    : ZrXMLTextCarrier({kText.text()}, text) {}

void ZrXMLGenericText::Write(std::ostream& stream) const {
  WritePrologue(stream);
  zr::Put(stream, text());
}

ZrXMLGenericWhitespace::ZrXMLGenericWhitespace(std::string_view text)
    : ZrXMLTextCarrier(kWhitespace, text) {}

ZrXMLGenericWhitespace::ZrXMLGenericWhitespace(const ZrShortText::Source& text) noexcept
    : ZrXMLTextCarrier({kWhitespace.text()}, text) {}

void ZrXMLGenericWhitespace::Write(std::ostream& stream) const {
  WritePrologue(stream);
  zr::Put(stream, text());
}
