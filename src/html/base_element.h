#pragma once
// The base of every node of an HTML document: an element of the markup model whose attributes "id",
// "class" and "style" are typed members. Pages are built from the tag classes that derive from it
// (html/html_elements.h and its neighbours), read by the markup reader, written as HTML or turned
// into client-side script. A tree of them belongs to one thread at a time.

#include <string>

#include "html/style_attribute.h"
#include "markup/complex_attribute.h"
#include "markup/generic_element.h"

/// An HTML node. Its attribute map points at its members, so it is neither copied nor moved.
/// A member attribute that was never set writes nothing.
class ZrHTML_BaseElement2 : public ZrXMLGenericElement {
 public:
  ZrHTML_BaseElement2(ZrNameView elementName, bool closed, bool selfClosesWhenEmpty);

  /// The attributes of these names ("class_" is "class"). They live as long as the element; after
  /// RemoveAttribute() they stay, but are no longer written.
  ZrXMLStringZrAttribute id;
  ZrXMLStringZrAttribute class_;
  ZrStyleAttribute style;

  /// The element as HTML text: what Write() puts into a stream.
  virtual std::string ToText() const;
  /// A block of client-side script that creates the element, sets its attributes, gives it its
  /// children as innerHTML and appends it to `document`. Attribute values go into single quotes as
  /// they are, so a value with a single quote or a line feed makes no working script.
  virtual std::string ToScript() const;

 protected:
  /// For classes that give their name through the element types.
  ZrHTML_BaseElement2() : ZrHTML_BaseElement2("", false, false) {}
  /// Enters a member of the derived class into the attribute map, which does not own it.
  void EnterMember(ZrNameView name, ZrXMLComplexAttribute2& member);
  Members ApartMembers() const override;
};
