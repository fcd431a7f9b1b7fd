#pragma once
// The "style" attribute of HTML elements: CSS properties by name, read from the attribute's text
// and written back in byte-wise order of their names. Belongs to the thread of its element.

#include <iosfwd>
#include <map>
#include <memory>
#include <string>

#include "html/css_property.h"
#include "markup/complex_attribute.h"

class ZrStyleAttribute : public ZrXMLComplexAttribute2 {
 public:
  /// Whether there is any property, an empty one included.
  bool IsSet() const override { return !properties_.empty(); }
  /// Writes every property that has a value, one after another.
  void WriteValue(std::ostream& stream) const override;
  /// As SetFromString(); a null or empty text does nothing.
  void SetFromText(const char* text) override;
  /// Adds the declarations of a text such as "color: red; margin: 0"; a property of the same name
  /// is replaced, others are kept. Linear in the text. Throws ZrException "style syntax wrong at:
  /// >TEXT< " at the first piece between two ";" that is neither blank nor a name, one ":" and a
  /// value; the pieces before it stay.
  void SetFromString(const std::string& text) override { AddFromString(text); }
  /// The same for callers that know the attribute's type.
  virtual void AddFromString(const std::string& text);

  /// The property of this name; when there is none, one without a value is made under the name as
  /// given. The attribute and the caller own it together.
  /// Throws ZrException "CSS property must have a name" for an empty name that is absent.
  virtual std::shared_ptr<ZrCSSProperty> Property(const std::string& name);

 private:
  std::map<std::string, std::shared_ptr<ZrCSSProperty>, std::less<>> properties_;
};
