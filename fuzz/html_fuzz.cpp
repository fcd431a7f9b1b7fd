// Pages with their style sheets.

#include <set>
#include <string>

#include "fuzz/markup_property.h"
#include "html/base_element.h"
#include "html/html_dtd.h"

namespace {

bool IsStable(const ZrXMLComplexElement& node) {
  // These write more than was read: a line feed, an empty text, a bracket.
  static const std::set<std::string> kGrowing = {"HTMLDoctype", "iframe", "option", "script"};
  if (kGrowing.count(node.Name()) != 0) return false;
  // Properties without a value are written as style="", which reads as none.
  const auto* const html = dynamic_cast<const ZrHTML_BaseElement2*>(&node);
  return html == nullptr || !html->style.IsSet() || !html->AttributeValue("style", "").empty();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  zr::fuzz::CheckMarkup(data, size, "html", zr::HtmlDocumentKinds(), IsStable);
  return 0;
}
