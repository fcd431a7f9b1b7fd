#include "html/zrcssnodes.h"

#include <ostream>

#include "host/zrexception.h"
#include "html/zrcssproperty.h"
#include "markup/zrxmlnodes.h"

namespace {

template <typename Node>
bool Is(const ZrXMLComplexElement& node) {
  return dynamic_cast<const Node*>(&node) != nullptr;
}

void WriteChildren(const ZrXMLComplexElement& node, std::ostream& stream) {
  for (const ZrXMLComplexElement* child : node.Children()) child->Write(stream);
}

}  // namespace

bool zr::IsStyleText(const ZrXMLComplexElement& node) {
  return Is<ZrXMLGenericText>(node) || Is<ZrXMLGenericWhitespace>(node);
}

void ZrCSSHTMLComment::ChildAdded(ZrXMLComplexElement* child) {
  if (!Is<ZrXMLGenericText>(*child)) throw ZrException("child must be text", 881, "src");
}

void ZrCSSHTMLComment::Write(std::ostream& stream) const {
  WritePrologue(stream);
  stream << "<!--";
  WriteChildren(*this, stream);
  stream << "-->";
}

void ZrCSSMediaQuery::ChildAdded(ZrXMLComplexElement* child) {
  if (!zr::IsStyleText(*child) && !Is<ZrCSSHTMLComment>(*child) && !Is<ZrCSSRule>(*child)) {
    throw ZrException("must be an CSS element", 902, "src");
  }
}

void ZrCSSMediaQuery::Write(std::ostream& stream) const {
  WritePrologue(stream);
  stream << selector_ << '{';
  WriteChildren(*this, stream);
  stream << '}';
}

void ZrCSSRule::ChildAdded(ZrXMLComplexElement* child) {
  if (!zr::IsStyleText(*child) && !Is<ZrCSSHTMLComment>(*child) && !Is<ZrCSSProperty>(*child)) {
    throw ZrException("must be an CSS element", 934, "src");
  }
}

void ZrCSSRule::Write(std::ostream& stream) const {
  WritePrologue(stream);
  stream << selector_ << '{';
  WriteChildren(*this, stream);
  stream << '}';
}

std::string ZrCSSRule::Value(ZrNameView newValue) {
  std::string stored = ZrXMLComplexElement::Value(newValue);
  return newValue.empty() ? stored : "cssRule";
}
