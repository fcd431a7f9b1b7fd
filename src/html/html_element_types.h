#pragma once
// The kinds of HTML elements, and the groups of kinds that the rows of the tag table name
// (html/html_tags.h). The kinds share their element through virtual inheritance: a class with
// several of them has one name, one list of children and one attribute map.

#include <memory>
#include <string>
#include <string_view>

#include "html/base_element.h"
#include "html/node_name.h"

class ZrHTML_text2;

/// An ordinary element: may hold children, is written with its start and its end tag.
class ZrHTML_ElementType0 : public virtual ZrHTML_BaseElement2 {
 protected:
  explicit ZrHTML_ElementType0(ZrNameView tag) { SetName(tag); }
};

/// An element whose end tag HTML lets a writer omit; it is written all the same.
class ZrHTML_ElementType1 : public virtual ZrHTML_BaseElement2 {
 protected:
  explicit ZrHTML_ElementType1(ZrNameView tag) { SetName(tag); }
};

/// A void element: never holds children, AddChild() refuses them; written as "<tag />".
class ZrHTML_ElementType2 : public virtual ZrHTML_BaseElement2 {
 protected:
  explicit ZrHTML_ElementType2(ZrNameView tag) {
    SetName(tag);
    SetClosed(true);
  }
};

/// An element that takes text in code.
class ZrHTML_ElementType0A : public virtual ZrHTML_BaseElement2 {
 public:
  /// Appends one text node that holds the text. Returns it; the element owns it.
  ZrHTML_text2& AppendText(std::string_view text);
  /// Appends the pending text as a text node, an empty one when none is pending. Returns it; the
  /// element owns it. On a throw of AddChild() the text stays pending.
  ZrHTML_text2& FlushText();

 protected:
  explicit ZrHTML_ElementType0A(ZrNameView tag) { SetName(tag); }

 private:
  std::unique_ptr<std::string> pendingText_;  // empty pointer: none is pending
};

/// Marks elements that hold flow content.
class ZrHTML_ElementType0B : public virtual ZrHTML_BaseElement2 {
 protected:
  explicit ZrHTML_ElementType0B(ZrNameView tag) { SetName(tag); }
};

/// Marks elements that a page is laid out with.
class ZrHTML_ElementType0C : public virtual ZrHTML_BaseElement2 {
 protected:
  explicit ZrHTML_ElementType0C(ZrNameView tag) { SetName(tag); }
};

namespace zr::html {

/// An element of several kinds; the base of the tag classes.
template <typename... Types>
class Group : public Types... {
 protected:
  explicit Group(ZrNameView tag) : Types(tag)... {}
};

using Ordinary = Group<ZrHTML_ElementType0>;
using OrdinaryText = Group<ZrHTML_ElementType0, ZrHTML_ElementType0A>;
using OrdinaryTextB = Group<ZrHTML_ElementType0, ZrHTML_ElementType0A, ZrHTML_ElementType0B>;
using OrdinaryTextBC =
    Group<ZrHTML_ElementType0, ZrHTML_ElementType0A, ZrHTML_ElementType0B, ZrHTML_ElementType0C>;
using OptionalEnd = Group<ZrHTML_ElementType1>;
using OptionalEndTextBC =
    Group<ZrHTML_ElementType1, ZrHTML_ElementType0A, ZrHTML_ElementType0B, ZrHTML_ElementType0C>;
using Void = Group<ZrHTML_ElementType2>;

}  // namespace zr::html
