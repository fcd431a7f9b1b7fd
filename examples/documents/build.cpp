// Builds a page from element classes and prints it.

#include <iostream>
#include <memory>

#include "html/form_elements.h"
#include "html/html_document.h"
#include "html/html_elements.h"
#include "html/html_text.h"
#include "html/plain_elements.h"

int main() {
  ZrHTML_Document2 page;
  page.AddToHead(std::make_unique<ZrHTML_title2>("Lamps"));

  auto list = std::make_unique<ZrHTML_ul2>();
  list->id.SetFromString("lamps");
  for (const char* colour : {"red", "green"}) {
    ZrHTML_li2* const item = list->Adopt(std::make_unique<ZrHTML_li2>());
    item->style.Property("color")->SetPropertyValue(colour);
    item->Adopt(std::make_unique<ZrHTML_text2>(colour));
  }
  page.AddToBody(std::move(list));

  auto form = std::make_unique<ZrHTML_form2>("/switch", "POST");
  form->AppendText("Lamp:");
  ZrHTML_input2* const name = form->Adopt(std::make_unique<ZrHTML_input2>());
  name->type.SetFromText("text");
  name->name.SetFromText("lamp");
  page.AddToBody(std::move(form));

  page.Write(std::cout);
  std::cout << '\n';
}
