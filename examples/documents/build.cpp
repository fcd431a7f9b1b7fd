// Builds a page and prints it.

#include <velkoro/documents.h>

#include <iostream>

int main() {
  velkoro::Document page("html", velkoro::DocumentKind::kHtml);
  page.Root().Add("head").Add("title").SetText("Lamps & more");

  velkoro::Element body = page.Root().Add("body");
  velkoro::Element list = body.Add("ul");
  list.Set("id", "lamps");
  for (const char* colour : {"red", "green"}) {
    velkoro::Element item = list.Add("li");
    item.Set("class", colour);
    item.SetText(colour);
  }
  body.Add(velkoro::Part::Markup("<form action='/switch'>Lamp: <input name=lamp></form>",
                                 velkoro::DocumentKind::kHtml));
  page.Indent();
  page.Write(std::cout);
}
