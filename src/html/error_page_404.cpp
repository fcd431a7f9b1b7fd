#include "html/error_page_404.h"

#include <memory>

#include "html/html_elements.h"
#include "html/html_text.h"
#include "html/plain_elements.h"

ZrHTML_ErrorMsg404::ZrHTML_ErrorMsg404()
    : ZrHTML_ErrorMsg404("Error 404 - not found",
                         "<h1>Error 404 - not found</h1>The requested page was not found or the "
                         "project was timed out.",
                         "/", "Startseite") {}

ZrHTML_ErrorMsg404::ZrHTML_ErrorMsg404(const std::string& title, const std::string& message,
                                       const std::string& linkTarget, const std::string& linkText) {
  AddToHead(std::make_unique<ZrHTML_title2>(title));
  AddToBody(std::make_unique<ZrHTML_text2>(message));
  AddToBody(std::make_unique<ZrHTML_br2>());
  AddToBody(std::make_unique<ZrHTML_a2>(linkTarget, linkText));
}
