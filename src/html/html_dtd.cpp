#include "html/html_dtd.h"

#include <type_traits>
#include <utility>

#include "html/css_nodes.h"
#include "html/css_property.h"
#include "html/css_reader_states.h"
#include "html/form_elements.h"
#include "html/html_document.h"
#include "html/html_elements.h"
#include "html/html_tags.h"
#include "html/html_text.h"
#include "html/plain_elements.h"
#include "markup/reader_state_bracketed.h"
#include "markup/reader_state_element.h"
#include "markup/reader_state_text.h"
#include "markup/xml_nodes.h"

namespace {

using Node = std::unique_ptr<ZrXMLComplexElement>;

template <typename Element>
Node MakeTag(const std::string& /*text*/) {
  return std::make_unique<Element>();
}

template <typename Element>
Node FromText(std::string_view text, ZrDTD& /*dtd*/) {
  return std::make_unique<Element>(text);
}

Node FromTag(std::string_view text, ZrDTD& dtd) { return zr::CreateElement(dtd, text); }

/// Enters every row of the tag table: a factory for the tag, and the name of a void element.
void RegisterTags(ZrDTD& dtd) {
#define ZR_HTML_REGISTER(tag, group)                                        \
  static_assert(std::is_base_of_v<zr::html::group, ZrHTML_##tag##2>, #tag); \
  dtd.TagFactories().emplace(#tag, MakeTag<ZrHTML_##tag##2>);               \
  if (std::is_same_v<zr::html::group, zr::html::Void>) dtd.VoidNames().insert(#tag);
  ZR_HTML_TAGS(ZR_HTML_REGISTER, ZR_HTML_REGISTER)
#undef ZR_HTML_REGISTER
}

/// What pages and HTML within XML have in common.
void AddPageStates(ZrDTD& dtd) {
  dtd.AddState(std::make_unique<ZrDTDElementRead_Comment>(), FromText<ZrXML_Comment2>, false);
  dtd.AddState(std::make_unique<ZrDTDElementRead_Element>(), FromTag, true);
  dtd.AddState(std::make_unique<ZrDTDElementRead_ProcInst>(), FromText<ZrXML_ProcInst2>, false);
  dtd.AddState(std::make_unique<ZrDTDElementRead_WhitespaceText>(),
               FromText<ZrXMLGenericWhitespace>, false);
  RegisterTags(dtd);
}

void FillHtml(ZrDTD& dtd) {
  AddPageStates(dtd);
  dtd.AddState(std::make_unique<ZrDTDElementRead_Doctype>(), FromText<ZrHTML_Doctype2>, false);
  dtd.AddState(std::make_unique<ZrDTDElementRead_Text>(), FromText<ZrHTML_text2>, false);
}

void FillXmlHtml(ZrDTD& dtd) {
  AddPageStates(dtd);
  dtd.AddState(std::make_unique<ZrDTDElementRead_Text>(), FromText<ZrXMLGenericText>, false);
}

/// What stands in a rule's braces; a sheet has it too.
void FillCssRule(ZrDTD& dtd) {
  dtd.AddState(std::make_unique<ZrDTDElementRead_WhitespaceCSS>(), FromText<ZrXMLGenericWhitespace>,
               false);
  dtd.AddCloser(std::make_unique<ZrDTDElementRead_CloserCSS>());
  dtd.AddState(std::make_unique<ZrDTDElementRead_CommentCSS>(), FromText<ZrXMLGenericText>, false);
  dtd.AddState(
      std::make_unique<ZrDTDElementRead_PropertyCSS>(),
      [](std::string_view text, ZrDTD& /*dtd*/) -> Node {
        return std::make_unique<ZrCSSProperty>(text, false);
      },
      false);
}

void FillCss(ZrDTD& dtd) {
  FillCssRule(dtd);
  dtd.AddState(
      std::make_unique<ZrDTDElementRead_WhitespaceCSSHTMLComment>(),
      [](std::string_view /*text*/, ZrDTD& /*dtd*/) -> Node {
        return std::make_unique<ZrCSSHTMLComment>();
      },
      true);
  dtd.AddCloser(std::make_unique<ZrDTDElementRead_WhitespaceCSSHTMLCommentCloser>());
  dtd.AddState(std::make_unique<ZrDTDElementRead_MediaQueryCSS>(), FromText<ZrCSSMediaQuery>, true);
  dtd.AddState(std::make_unique<ZrDTDElementRead_RuleCSS>(), FromText<ZrCSSRule>, true);
  // An element within a sheet is refused by its parent; the end tag closes the style element.
  dtd.AddState(std::make_unique<ZrDTDElementRead_Element>(), FromTag, false);
}

constexpr ZrDTDDefinition kKinds[] = {
    {"html", FillHtml}, {"xmlhtml", FillXmlHtml}, {"css", FillCss}, {"cssRule", FillCssRule}};

}  // namespace

std::span<const ZrDTDDefinition> zr::HtmlDocumentKinds() { return kKinds; }

std::unique_ptr<ZrXMLGenericElement> zr::CreateElement(ZrDTD& dtd, std::string_view tag) {
  const auto factory = dtd.TagFactories().find(tag);
  if (factory != dtd.TagFactories().end()) {
    Node made = factory->second({});
    if (made != nullptr && made->AsGeneric() != nullptr)
      return std::unique_ptr<ZrXMLGenericElement>(made.release()->AsGeneric());
  }
  return std::make_unique<ZrXMLGenericElement>(dtd.SharedName(tag), true);
}
