// What malformed input and refused children look like.

#include <iostream>
#include <memory>
#include <sstream>
#include <string>

#include "base/exception.h"
#include "html/html_dtd.h"
#include "html/html_text.h"
#include "html/plain_elements.h"
#include "markup/parse.h"

int main() {
  std::istringstream input("<p>\n  <b>bold</p>");
  std::string error;
  if (zr::ParseStream(input, "html", error, zr::HtmlDocumentKinds()) == nullptr) {
    std::cout << error << '\n';
  }

  ZrHTML_br2 lineBreak;
  try {
    lineBreak.Adopt(std::make_unique<ZrHTML_text2>("no place for a text"));
  } catch (const ZrException& e) {
    std::cout << e.what() << '\n';
  }
}
