#pragma once
// A page: the document, its type line, and the html element with its head and body. AddToHead() and
// AddToBody() make what is missing, so a page is built without a thought for its frame.

#include <iosfwd>
#include <memory>
#include <string>
#include <string_view>

#include "html/html_element_types.h"

/// The document type line, "<!DOCTYPE html>"; named "HTMLDoctype" in searches.
class ZrHTML_Doctype2 : public ZrXMLGenericElement {
 public:
  explicit ZrHTML_Doctype2(std::string_view documentType);

  /// Writes the line with its line feed.
  void Write(std::ostream& stream) const override;

 private:
  std::string text_;
};

/// The root element of a page.
class ZrHTML_html2 : public zr::html::Ordinary {
 public:
  ZrHTML_html2() : Group(zr::html::NodeName<ZrHTML_html2>("html")) {}

  /// The first element of the subtree named "body" or "head", at any depth. When there is none, a
  /// new body is appended, a new head is put in front. The tree owns the element.
  ZrXMLComplexElement& Body();
  ZrXMLComplexElement& Head();
};

/// The document; named "HTMLDocument" in searches. Writes its children and nothing of its own.
class ZrHTML_Document2 : public ZrHTML_BaseElement2 {
 public:
  ZrHTML_Document2() : ZrHTML_BaseElement2("HTMLDocument", false, false) {}

  /// The first html element of the document, appended when there is none. Before that a document
  /// without a type line gets "<!DOCTYPE html>" as its first child. The tree owns the element.
  ZrHTML_html2& HtmlRoot();
  /// Appends the element to the body or the head of the html element. Takes the element over.
  /// Returns it. Throws as AddChild() does.
  ZrXMLComplexElement& AddToBody(std::unique_ptr<ZrXMLComplexElement> element);
  ZrXMLComplexElement& AddToHead(std::unique_ptr<ZrXMLComplexElement> element);

  void Write(std::ostream& stream) const override;
};
