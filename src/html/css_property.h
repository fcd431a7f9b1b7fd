#pragma once
// One declaration of CSS, "color: red;": a node of a rule in a style sheet, and what the style
// attribute of an HTML element keeps for each name. Belongs to one thread at a time.

#include <iosfwd>
#include <string>
#include <string_view>

#include "markup/complex_element.h"

/// A property with its value; named "cssproperty" in searches. It takes no children.
class ZrCSSProperty : public ZrXMLComplexElement {
 public:
  /// With `nameOnly` the text is the property's name, trimmed of blanks, ";", tabs and line ends at
  /// both ends, and the value stays empty. Otherwise the text is a name, ":" and a value, split at
  /// the first ":"; the name is trimmed of blanks, the value like a name alone.
  /// Throws ZrException "CSS property must have a name" for an empty text with `nameOnly`, and
  /// "CSS property not well formed (missing ':')." for a text without ":" otherwise.
  ZrCSSProperty(std::string_view text, bool nameOnly);

  virtual const std::string& PropertyName() const { return propertyName_; }
  const std::string& PropertyValue() const { return propertyValue_; }
  /// Whether the value is empty. Such a property writes nothing.
  virtual bool IsEmpty() const { return propertyValue_.empty(); }
  /// Replaces the value, untrimmed, and returns it as stored.
  virtual std::string& SetPropertyValue(const std::string& text) { return propertyValue_ = text; }

  void Write(std::ostream& stream) const override;
  /// Throws ZrException "no childs possible"; the child is in the tree then.
  void ChildAdded(ZrXMLComplexElement* child) override;

 private:
  std::string propertyName_;
  std::string propertyValue_;
};
