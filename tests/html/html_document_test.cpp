#include "html/html_document.h"

#include <gtest/gtest.h>

#include "html/error_page_404.h"
#include "html/html_elements.h"
#include "html/plain_elements.h"
#include "tests/markup/dump.h"

namespace {

TEST(HtmlDocument, MakesTheFrameThatIsMissing) {
  ZrHTML_Document2 other;
  auto* const outer = other.Adopt(std::make_unique<ZrHTML_div2>());
  auto* const html = outer->Adopt(std::make_unique<ZrHTML_html2>());
  EXPECT_EQ(&other.HtmlRoot(), html);
  EXPECT_EQ(zrtest::Dump(other), "HTMLDocument(HTMLDoctype div(html))");
  auto* const body =
      html->Adopt(std::make_unique<ZrHTML_div2>())->Adopt(std::make_unique<ZrHTML_body2>());
  EXPECT_EQ(&html->Body(), body);

  ZrHTML_Document2 page;
  page.AddToBody(std::make_unique<ZrHTML_p2>());
  page.AddToHead(std::make_unique<ZrHTML_title2>("T"));
  EXPECT_EQ(zrtest::Dump(page.HtmlRoot()), "html(head(title(\"T\")) body(p))");
}

TEST(HtmlDocument, TheErrorPageShowsMessageAndLink) {
  EXPECT_EQ(ZrHTML_ErrorMsg404().ToText(),
            "<!DOCTYPE html>\n<html>\n<head>\n<title>\nError 404 - not found\n</title>\n</head>\n"
            "<body>\n<h1>Error 404 - not found</h1>The requested page was not found or the project "
            "was timed out.\n<br />\n<a href=\"/\">\nStartseite\n</a>\n</body>\n</html>");
}

}  // namespace
