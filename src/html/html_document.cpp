#include "html/html_document.h"

#include <string_view>
#include <utility>

#include "base/exception.h"
#include "html/plain_elements.h"
#include "markup/write.h"

namespace {

/// The first node below `root`, in document order, that has the name and is of the class. Stops
/// there: building a page asks for its body again and again, and it stands near the front.
template <typename Node>
Node* FindFirst(const ZrXMLComplexElement& root, std::string_view name) {
  const ZrXMLComplexElement* open = &root;
  for (;;) {
    if (open->Children().HasClearedSlots()) throw ZrException("Nullelement", 687, "src");
    ZrXMLComplexElement* next = open->Children().front();
    while (next == nullptr && open != &root) {
      next = open->NextSibling();
      open = open->Parent();
    }
    if (next == nullptr) return nullptr;
    if (next->Name() == name) {
      if (auto* const node = dynamic_cast<Node*>(next)) return node;
    }
    open = next;
  }
}

/// AddChildFront() of a node that a smart pointer owns.
template <typename Node>
Node& AdoptFront(ZrXMLComplexElement& parent, std::unique_ptr<Node> child) {
  Node* const node = child.get();
  try {
    parent.AddChildFront(node);
  } catch (...) {
    if (node->Parent() == &parent)
      static_cast<void>(child.release());  // refused after it was inserted
    throw;
  }
  return *child.release();
}

}  // namespace

ZrHTML_Doctype2::ZrHTML_Doctype2(std::string_view documentType)
    : ZrXMLGenericElement("HTMLDoctype", true), text_(documentType) {}

void ZrHTML_Doctype2::Write(std::ostream& stream) const {
  WritePrologue(stream);
  zr::TagWriter line(stream);
  line << "<!DOCTYPE " << text_ << ">\n";
  line.Flush();
}

ZrXMLComplexElement& ZrHTML_html2::Body() {
  if (auto* const body = FindFirst<ZrXMLComplexElement>(*this, "body")) return *body;
  return *Adopt(std::make_unique<ZrHTML_body2>());
}

ZrXMLComplexElement& ZrHTML_html2::Head() {
  if (auto* const head = FindFirst<ZrXMLComplexElement>(*this, "head")) return *head;
  return AdoptFront(*this, std::make_unique<ZrHTML_head2>());
}

ZrHTML_html2& ZrHTML_Document2::HtmlRoot() {
  if (FindFirst<ZrXMLComplexElement>(*this, "HTMLDoctype") == nullptr)
    AdoptFront(*this, std::make_unique<ZrHTML_Doctype2>("html"));
  if (auto* const html = FindFirst<ZrHTML_html2>(*this, "html")) return *html;
  return *Adopt(std::make_unique<ZrHTML_html2>());
}

ZrXMLComplexElement& ZrHTML_Document2::AddToBody(std::unique_ptr<ZrXMLComplexElement> element) {
  return *HtmlRoot().Body().Adopt(std::move(element));
}

ZrXMLComplexElement& ZrHTML_Document2::AddToHead(std::unique_ptr<ZrXMLComplexElement> element) {
  return *HtmlRoot().Head().Adopt(std::move(element));
}

void ZrHTML_Document2::Write(std::ostream& stream) const {
  WritePrologue(stream);
  for (const ZrXMLComplexElement* child : Children()) child->Write(stream);
}
