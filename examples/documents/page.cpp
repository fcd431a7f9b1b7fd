// Reads a page as people write them, puts a stranger's words into it and takes its script out.

#include <velkoro/documents.h>

#include <iostream>

int main() {
  velkoro::Document page = velkoro::Document::ReadText(
      "<!doctype html>\n"
      "<HTML><body>\n"
      "<p>Hello, <b id=name></b><br>how are you?</p>\n"
      "<script>if (1 < 2) greet('</b>');</script>\n"
      "</body></HTML>\n",
      velkoro::DocumentKind::kHtml);

  page.QueryFirst("//*[id=name]").SetText("<O'Brien>");
  const velkoro::Part script = page.QueryFirst("//script").Remove();
  std::cout << "taken out: " << script.Get().Text() << "\n\n" << page.Text();
}
