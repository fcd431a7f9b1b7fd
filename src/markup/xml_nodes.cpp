#include "markup/xml_nodes.h"

#include "markup/write.h"

namespace {

const ZrPermanentName kDocument("xmldocument");
const ZrPermanentName kProcInst("procinst");
const ZrPermanentName kComment("comment");

}  // namespace

const ZrPermanentName ZrXMLGenericText::kName("xmltext");
const ZrPermanentName ZrXMLGenericWhitespace::kName("xmlwhitespace");

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

ZrXMLGenericText::ZrXMLGenericText(std::string_view text) : ZrXMLTextCarrier(kName, text) {}

void ZrXMLGenericText::Write(std::ostream& stream) const {
  WritePrologue(stream);
  zr::Put(stream, text());
}

ZrXMLGenericWhitespace::ZrXMLGenericWhitespace(std::string_view text)
    : ZrXMLTextCarrier(kName, text) {}

void ZrXMLGenericWhitespace::Write(std::ostream& stream) const {
  WritePrologue(stream);
  zr::Put(stream, text());
}
