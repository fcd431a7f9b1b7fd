#pragma once
// The nodes of a style sheet: rules, media queries, and the comment bracket around a sheet. They
// hold each other, declarations (html/css_property.h), text and whitespace; each checks the kind
// of its children. A check runs when the child is in the tree already, so a child that was refused
// belongs to the tree. Belongs to one thread at a time.

#include <iosfwd>
#include <string>
#include <string_view>

#include "html/node_name.h"
#include "markup/complex_element.h"

namespace zr {

/// Whether the node is text or whitespace, which every block of a style sheet holds between its
/// parts; both write themselves as they were read.
bool IsStyleText(const ZrXMLComplexElement& node);

}  // namespace zr

/// The bracket "<!--" ... "-->" that old pages put around a sheet; named "csshtmlcomment".
class ZrCSSHTMLComment : public ZrXMLComplexElement {
 public:
  ZrCSSHTMLComment()
      : ZrXMLComplexElement(zr::html::NodeName<ZrCSSHTMLComment>("csshtmlcomment"), false, true) {}

  /// Accepts text. Throws ZrException "child must be text" for any other child.
  void ChildAdded(ZrXMLComplexElement* child) override;
  void Write(std::ostream& stream) const override;
};

/// An at-rule with a block, "@media print { ... }"; named "cssmediaquery".
class ZrCSSMediaQuery : public ZrXMLComplexElement {
 public:
  /// The text before the brace, kept as it is.
  explicit ZrCSSMediaQuery(std::string_view selector)
      : ZrXMLComplexElement(zr::html::NodeName<ZrCSSMediaQuery>("cssmediaquery"), false, true),
        selector_(selector) {}

  const std::string& selector() const { return selector_; }

  /// Accepts text, whitespace, comment brackets and rules. Throws ZrException "must be an CSS
  /// element" for any other child.
  void ChildAdded(ZrXMLComplexElement* child) override;
  void Write(std::ostream& stream) const override;

 private:
  std::string selector_;
};

/// A rule, "p { color: red; }"; named "cssrule".
class ZrCSSRule : public ZrXMLComplexElement {
 public:
  /// The text before the brace, kept as it is.
  explicit ZrCSSRule(std::string_view selector)
      : ZrXMLComplexElement(zr::html::NodeName<ZrCSSRule>("cssrule"), false, true),
        selector_(selector) {}

  const std::string& selector() const { return selector_; }

  /// Accepts text, whitespace, comment brackets and properties. Throws ZrException "must be an CSS
  /// element" for any other child.
  void ChildAdded(ZrXMLComplexElement* child) override;
  void Write(std::ostream& stream) const override;
  /// An empty text answers the stored one; any other is stored and answered with "cssRule", by
  /// which the reader knows how to read the declarations.
  std::string Value(ZrNameView newValue) override;

 private:
  std::string selector_;
};
