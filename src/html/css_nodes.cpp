#include "html/css_nodes.h"

#include <string_view>

#include "base/exception.h"
#include "html/css_property.h"
#include "markup/write.h"
#include "markup/xml_nodes.h"

namespace {

template <typename Node>
bool Is(const ZrXMLComplexElement& node) {
  return dynamic_cast<const Node*>(&node) != nullptr;
}

struct Marks {
  std::string_view selector;
  std::string_view open;
  std::string_view close;
};

// A node of a style sheet: what opens it, its children, what closes it.
void WriteBlock(const ZrXMLComplexElement& node, std::ostream& stream, const Marks& marks) {
  node.WritePrologue(stream);
  zr::TagWriter opening(stream);
  opening << marks.selector << marks.open;
  opening.Flush();
  for (const ZrXMLComplexElement* child : node.Children()) child->Write(stream);
  zr::Put(stream, marks.close);
}

}  // namespace

bool zr::IsStyleText(const ZrXMLComplexElement& node) {
  return Is<ZrXMLGenericText>(node) || Is<ZrXMLGenericWhitespace>(node);
}

void ZrCSSHTMLComment::ChildAdded(ZrXMLComplexElement* child) {
  if (!Is<ZrXMLGenericText>(*child)) throw ZrException("child must be text", 881, "src");
}

void ZrCSSHTMLComment::Write(std::ostream& stream) const {
  WriteBlock(*this, stream, {"", "<!--", "-->"});
}

void ZrCSSMediaQuery::ChildAdded(ZrXMLComplexElement* child) {
  if (!zr::IsStyleText(*child) && !Is<ZrCSSHTMLComment>(*child) && !Is<ZrCSSRule>(*child))
    throw ZrException("must be an CSS element", 902, "src");
}

void ZrCSSMediaQuery::Write(std::ostream& stream) const {
  WriteBlock(*this, stream, {selector_, "{", "}"});
}

void ZrCSSRule::ChildAdded(ZrXMLComplexElement* child) {
  if (!zr::IsStyleText(*child) && !Is<ZrCSSHTMLComment>(*child) && !Is<ZrCSSProperty>(*child))
    throw ZrException("must be an CSS element", 934, "src");
}

void ZrCSSRule::Write(std::ostream& stream) const {
  WriteBlock(*this, stream, {selector_, "{", "}"});
}

std::string ZrCSSRule::Value(ZrNameView newValue) {
  std::string stored = ZrXMLComplexElement::Value(newValue);
  return newValue.empty() ? stored : "cssRule";
}
