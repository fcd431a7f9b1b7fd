#include "html/html_elements.h"

#include <memory>

#include "base/exception.h"
#include "html/css_nodes.h"
#include "html/html_text.h"
#include "markup/write.h"

namespace {

void SetUnlessEmpty(ZrXMLStringZrAttribute& attribute, const std::string& text) {
  if (!text.empty()) attribute.SetFromString(text);
}

}  // namespace

ZrHTML_a2::ZrHTML_a2() : Group(zr::html::NodeName<ZrHTML_a2>("a")) {
  EnterMember("href", href);
  EnterMember("name", name);
}

ZrHTML_a2::ZrHTML_a2(const std::string& target, const std::string& linkText) : ZrHTML_a2() {
  href.SetFromString(target);
  Adopt(std::make_unique<ZrHTML_text2>(linkText));
}

ZrHTML_div2::ZrHTML_div2(const std::string& idText, bool draggable)
    : Group(zr::html::NodeName<ZrHTML_div2>("div")) {
  EnterMember("onmousedown", onmousedown);
  if (draggable) onmousedown.SetFromText("quarn_start_drag(this);");
  SetUnlessEmpty(id, idText);
}

ZrHTML_iframe2::ZrHTML_iframe2(const std::string& source, const std::string& widthText,
                               const std::string& heightText, const std::string& text)
    : Group(zr::html::NodeName<ZrHTML_iframe2>("iframe")) {
  EnterMember("src", src);
  EnterMember("width", width);
  EnterMember("height", height);
  SetUnlessEmpty(src, source);
  SetUnlessEmpty(width, widthText);
  SetUnlessEmpty(height, heightText);
  Adopt(std::make_unique<ZrHTML_text2>(text));
}

ZrHTML_img2::ZrHTML_img2(const std::string& source, const std::string& altText,
                         const std::string& titleText)
    : Group(zr::html::NodeName<ZrHTML_img2>("img")) {
  EnterMember("src", src);
  EnterMember("alt", alt);
  EnterMember("title", title);
  SetUnlessEmpty(src, source);
  SetUnlessEmpty(alt, altText);
  SetUnlessEmpty(title, titleText);
}

ZrHTML_link2::ZrHTML_link2(const std::string& target)
    : Group(zr::html::NodeName<ZrHTML_link2>("link")) {
  EnterMember("type", type);
  EnterMember("rel", rel);
  EnterMember("href", href);
  type.SetFromText("text/css");
  rel.SetFromText("stylesheet");
  SetUnlessEmpty(href, target);
}

ZrHTML_meta2::ZrHTML_meta2(const std::string& attributeText)
    : Group(zr::html::NodeName<ZrHTML_meta2>("meta")) {
  if (!attributeText.empty()) AssignAttributeText(attributeText);
}

ZrHTML_script2::ZrHTML_script2() : Group(zr::html::NodeName<ZrHTML_script2>("script")) {
  EnterMember("src", src);
  EnterMember("type", type);
  type.SetFromText("text/javascript");
}

void ZrHTML_script2::WriteAfterStartTag(std::ostream& stream) const { zr::Put(stream, "\n<!--\n"); }

void ZrHTML_script2::WriteBeforeEndTag(std::ostream& stream) const { zr::Put(stream, "\n//-->\n"); }

ZrHTML_style2::ZrHTML_style2() : Group(zr::html::NodeName<ZrHTML_style2>("style")) {
  EnterMember("src", src);
  EnterMember("type", type);
  type.SetFromText("text/css");
}

void ZrHTML_style2::ChildAdded(ZrXMLComplexElement* child) {
  if (!zr::IsStyleText(*child) && dynamic_cast<ZrCSSHTMLComment*>(child) == nullptr &&
      dynamic_cast<ZrCSSMediaQuery*>(child) == nullptr &&
      dynamic_cast<ZrCSSRule*>(child) == nullptr)
    throw ZrException("must be an CSS element", 1094, "src");
}

std::string ZrHTML_style2::Value(ZrNameView newValue) {
  std::string stored = ZrHTML_BaseElement2::Value(newValue);
  return newValue.empty() ? stored : "css";
}

ZrHTML_title2::ZrHTML_title2() : Group(zr::html::NodeName<ZrHTML_title2>("title")) {}

ZrHTML_title2::ZrHTML_title2(const std::string& text) : ZrHTML_title2() {
  Adopt(std::make_unique<ZrHTML_text2>(text));
}
