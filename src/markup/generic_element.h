#pragma once
// Elements with attributes: plain XML elements are of this class, HTML elements derive from it.

#include <array>
#include <memory>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "markup/attribute_map.h"
#include "markup/complex_attribute.h"
#include "markup/complex_element.h"

class ZrXMLGenericElement;

/// Results of a search for elements, in document order. The pointers do not own: each is good until
/// its element is destroyed or its tree goes away.
using ZrXMLElementList = std::vector<ZrXMLGenericElement*>;

/// Adds attributes, ordered byte-wise by name. A name may stand without a value (a bare name, as
/// HTML allows): its attribute object is null.
class ZrXMLGenericElement : public ZrXMLComplexElement {
 public:
  /// Query() gives up beyond so many elements: a path over elements of one name nested in each
  /// other finds each of them many times over.
  static constexpr std::size_t kMaxQueryResults = 10'000'000;

  ZrXMLGenericElement(ZrNameView name, bool ownLine)
      : ZrXMLGenericElement(name, false, true, ownLine) {}
  /// Destroys the attributes.
  ~ZrXMLGenericElement() override {
    if (ZrAttributeMap* const attributes = Attributes()) attributes->Clear();
  }

  // The virtual operations that follow those of ZrXMLComplexElement, in slot order.

  /// Hooks of Write(): right after the ">" of the start tag, and after the last child.
  virtual void WriteAfterStartTag(std::ostream& stream) const;
  virtual void WriteBeforeEndTag(std::ostream& stream) const;
  /// Appends the children that are elements of this class or derived ones.
  virtual void CollectElementChildren(ZrXMLElementList& list);
  /// Takes one item name="value": the name up to the first "=", the value without its first and
  /// last character. Without "=" nothing happens. Never throws: a failure is noted in ErrorFlag()
  /// and ErrorText().
  virtual void AssignAttributeText(const std::string& text);
  /// Sets the attribute from the text; an absent or bare name gets an untyped attribute. Answers
  /// yes. Passes on what a typed attribute throws.
  virtual bool SetAttribute(ZrNameView name, std::string_view value);
  /// The attribute, made empty and untyped when the name is absent; null for a bare name. Owned by
  /// the element.
  virtual ZrXMLComplexAttribute2* Attribute(ZrNameView name);
  /// The attribute's value as it is written; empty for a bare name, defaultValue for an absent one.
  virtual std::string AttributeValue(std::string_view name, std::string_view defaultValue) const;
  /// Whether the attribute writes as that value; no for a bare or absent name.
  virtual bool AttributeEquals(std::string_view name, std::string_view value) const;
  /// Whether the name is there, bare ones included.
  virtual bool HasAttribute(std::string_view name) const;
  /// Removes the name and destroys its attribute. No: it is absent.
  virtual bool RemoveAttribute(std::string_view name);
  /// Replaces the element below this one whose attribute has that value, or else appends
  /// newElement; in both cases sets the attribute on it and takes it over. Answers whether it
  /// replaced one; for null it answers no, and nothing happens. When it throws,
  /// newElement->Parent() tells who owns newElement.
  virtual bool PutByAttribute(ZrXMLGenericElement* newElement, ZrNameView attrName,
                              std::string_view attrValue);
  /// Appends this element and those below it that have the attribute.
  virtual void FindWithAttribute(ZrXMLElementList& list, std::string_view attrName);
  /// The same for a given value.
  virtual void FindWithAttributeValue(std::string_view attrName, std::string_view attrValue,
                                      ZrXMLElementList& list);
  /// The first of them, null if there is none.
  virtual ZrXMLGenericElement* FirstWithAttributeValue(std::string_view attrName,
                                                       std::string_view attrValue);
  /// FindByName() that keeps only elements of this class or derived ones.
  virtual void FindElementsByName(std::string_view name, ZrXMLElementList& list, std::size_t depth);
  /// Destroys the first child whose attribute has that value.
  virtual void DeleteChildByAttribute(std::string_view attrName, std::string_view attrValue);
  /// Looks a path up: steps separated by ".", each a name with an optional condition [attr] or
  /// [attr=value] or [attr="value"], matched against the current element itself and its direct
  /// children. Returns the list, empty when nothing is found; the caller owns the list (and
  /// keeps it in a variable while it visits the elements), the tree the elements. Throws
  /// ZrException "too many results for the path" beyond kMaxQueryResults.
  virtual std::unique_ptr<ZrXMLElementList> Query(std::string_view path);

  // Overrides.

  /// Start tag with the attributes that are set, children with line breaks between those on lines
  /// of their own, end tag.
  void Write(std::ostream& stream) const override;
  /// Replaces the first element below this one whose attribute has that value by newElement, sets
  /// the attribute on it and takes it over; the old element is destroyed. No: there is none, and
  /// newElement stays the caller's.
  bool ReplaceByAttribute(ZrXMLGenericElement* newElement, ZrNameView attrName,
                          std::string_view attrValue) override;

  // The other operations.

  /// Stores the object (null for a bare name) under the name and takes it over. Throws the integer
  /// 2 when the name is there already; the object then stays the caller's.
  bool AddAttribute(ZrNameView name, ZrXMLComplexAttribute2* attribute);
  /// Whether the name is there and is written: a bare one, or one that is set.
  bool HasWrittenAttribute(std::string_view name) const;
  /// Calls visit(const std::string& name, const ZrXMLComplexAttribute2* attribute) for every
  /// attribute in name order; the attribute is null for a bare name.
  template <class Visitor>
  void ForEachAttribute(Visitor&& visit) const {
    const ZrAttributeMap* const attributes = Attributes();
    const Members members = MembersApart() ? ApartMembers() : Members{};
    auto member = members.begin();
    const auto visitMember = [&] {
      visit(*member->name, static_cast<const ZrXMLComplexAttribute2*>(member->attribute));
      ++member;
    };
    if (attributes != nullptr) {
      attributes->ForEach([&](const std::string& name, const ZrXMLComplexAttribute2* attribute) {
        while (member != members.end() && member->name != nullptr && *member->name < name)
          visitMember();
        visit(name, attribute);
      });
    }
    while (member != members.end() && member->name != nullptr) visitMember();
  }
  /// The same for those that are written: bare ones and those that are set.
  template <class Visitor>
  void ForEachWrittenAttribute(Visitor&& visit) const {
    if (Attributes() == nullptr && !MembersApart()) return;
    ForEachAttribute([&](const std::string& name, const ZrXMLComplexAttribute2* attribute) {
      if (attribute == nullptr || attribute->IsSet()) visit(name, attribute);
    });
  }
  /// Makes room for so many attributes, in an element that keeps all of them in its map.
  void ReserveAttributes(std::size_t count) {
    if (count != 0 && !MembersApart()) MakeAttributes().Reserve(count);
  }

 protected:
  friend class zr::PlainReader;
  explicit ZrXMLGenericElement(const AsRead& read) noexcept : ZrXMLComplexElement(read) {}
  /// For classes that set closed and selfClosesWhenEmpty themselves.
  ZrXMLGenericElement(ZrNameView name, bool closed, bool selfClosesWhenEmpty, bool ownLine)
      : ZrXMLComplexElement(name, closed, selfClosesWhenEmpty) {
    MarkGeneric();
    SetOwnLine(ownLine);
  }

  /// A typed member that is an attribute without standing in the map.
  struct Member {
    const std::string* name = nullptr;
    ZrXMLComplexAttribute2* attribute = nullptr;
  };
  static constexpr std::size_t kMostMembers = 3;
  using Members = std::array<Member, kMostMembers>;

  /// A class whose every node has the same few typed members keeps them apart from the map, with
  /// SetMembersApart(true) in its constructor: most nodes of a page then go without a map. Answers
  /// them in the order of their names, those without a name last.
  virtual Members ApartMembers() const;

 private:
  struct Found {
    bool there;
    const ZrXMLComplexAttribute2* attribute;  // null for a bare name
  };
  Found FindAttribute(std::string_view name) const;
  // The member of that name that is kept apart.
  ZrXMLComplexAttribute2* FindMember(std::string_view name) const {
    if (!MembersApart()) return nullptr;
    for (const Member& member : ApartMembers())
      if (member.name != nullptr && *member.name == name) return member.attribute;
    return nullptr;
  }
  bool WriteStart(std::ostream& stream) const;
};

inline ZrXMLGenericElement* ZrXMLComplexElement::AsGeneric() {
  return (flags_ & kGeneric) != 0 ? static_cast<ZrXMLGenericElement*>(this) : nullptr;
}
inline const ZrXMLGenericElement* ZrXMLComplexElement::AsGeneric() const {
  return (flags_ & kGeneric) != 0 ? static_cast<const ZrXMLGenericElement*>(this) : nullptr;
}
