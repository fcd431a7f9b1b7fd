// Reads a page and a style sheet into element classes, and turns an element into a script.

#include <iostream>
#include <memory>
#include <sstream>
#include <string>

#include "html/base_element.h"
#include "html/css_nodes.h"
#include "html/html_dtd.h"
#include "markup/parse.h"

int main() {
  std::istringstream input(
      "<div id=\"main\" style=\"margin: 0\">"
      "<style>p { color: red }</style>"
      "<p>It's\nread</p>"
      "</div>");

  std::string error;
  const std::unique_ptr<ZrXMLComplexElement> root =
      zr::ParseStream(input, "html", error, zr::HtmlDocumentKinds());
  auto* const div = dynamic_cast<ZrHTML_BaseElement2*>(root.get());
  if (div == nullptr) {
    std::cerr << "page.html: " << error << '\n';
    return 1;
  }

  div->style.Property("color")->SetPropertyValue("blue");
  ZrXMLNodeList rules;
  div->FindByName("cssrule", rules, ZrXMLComplexElement::kUnlimited);
  for (ZrXMLComplexElement* rule : rules) {
    std::cout << "rule for " << static_cast<ZrCSSRule*>(rule)->selector() << '\n';
  }

  std::cout << div->ToText() << "\n\n" << div->ToScript() << '\n';
}
