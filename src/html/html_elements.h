#pragma once
// The HTML tags with members, constructor arguments or behaviour of their own, except those of
// forms (html/form_elements.h) and the root of a page (html/html_document.h). Members are
// typed attributes; one that was never set writes nothing. Built without arguments each class is
// what the markup reader makes of a start tag.

#include <iosfwd>
#include <string>

#include "html/html_element_types.h"

/// A link or an anchor.
class ZrHTML_a2 : public zr::html::Ordinary {
 public:
  ZrHTML_a2();
  /// A link to `target` that shows `linkText`.
  ZrHTML_a2(const std::string& target, const std::string& linkText);

  ZrXMLStringZrAttribute href;
  ZrXMLStringZrAttribute name;
};

/// A block of a page.
class ZrHTML_div2 : public zr::html::OrdinaryTextBC {
 public:
  /// An empty id is not set. A draggable block calls the page's script function "quarn_start_drag"
  /// with itself when a mouse button goes down on it.
  explicit ZrHTML_div2(const std::string& idText = {}, bool draggable = false);

  ZrXMLStringZrAttribute onmousedown;
};

/// A page within the page.
class ZrHTML_iframe2 : public zr::html::Ordinary {
 public:
  /// Empty addresses and sizes are not set; the text, also an empty one, becomes a text node.
  explicit ZrHTML_iframe2(const std::string& source = {}, const std::string& widthText = {},
                          const std::string& heightText = {}, const std::string& text = {});

  ZrXMLStringZrAttribute src;
  ZrXMLStringZrAttribute width;
  ZrXMLStringZrAttribute height;
};

/// An image; empty arguments are not set.
class ZrHTML_img2 : public zr::html::Void {
 public:
  explicit ZrHTML_img2(const std::string& source = {}, const std::string& altText = {},
                       const std::string& titleText = {});

  ZrXMLStringZrAttribute src;
  ZrXMLStringZrAttribute alt;
  ZrXMLStringZrAttribute title;
};

/// A link to a style sheet; an empty address is not set.
class ZrHTML_link2 : public zr::html::Void {
 public:
  explicit ZrHTML_link2(const std::string& target = {});

  ZrXMLStringZrAttribute type;
  ZrXMLStringZrAttribute rel;
  ZrXMLStringZrAttribute href;
};

/// A page's meta data.
class ZrHTML_meta2 : public zr::html::Void {
 public:
  /// One attribute in the form name="value"; an empty text sets none.
  explicit ZrHTML_meta2(const std::string& attributeText = {});
};

/// A client-side script, written between the comment brackets that old browsers need.
class ZrHTML_script2 : public zr::html::Ordinary {
 public:
  ZrHTML_script2();

  void WriteAfterStartTag(std::ostream& stream) const override;
  void WriteBeforeEndTag(std::ostream& stream) const override;

  ZrXMLStringZrAttribute src;
  ZrXMLStringZrAttribute type;
};

/// A style sheet: its content is CSS, read with the "css" states and held in CSS nodes.
class ZrHTML_style2 : public zr::html::Ordinary {
 public:
  ZrHTML_style2();

  /// Accepts text, whitespace, rules, media queries and the comment bracket of a sheet. Throws
  /// ZrException "must be an CSS element" for any other child, which is in the tree then.
  void ChildAdded(ZrXMLComplexElement* child) override;
  /// An empty text answers the stored one; any other is stored and answered with "css", by which
  /// the reader knows how to read the content.
  std::string Value(ZrNameView newValue) override;

  ZrXMLStringZrAttribute src;
  ZrXMLStringZrAttribute type;
};

/// A page's title.
class ZrHTML_title2 : public zr::html::Ordinary {
 public:
  ZrHTML_title2();
  explicit ZrHTML_title2(const std::string& text);
};
