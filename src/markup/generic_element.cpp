#include "markup/generic_element.h"

#include <exception>
#include <optional>
#include <sstream>
#include <typeinfo>

#include "base/exception.h"
#include "markup/write.h"

namespace {

// The attribute's own text where it is plain, without the cost of a stream.
std::optional<std::string_view> PlainText(const ZrXMLComplexAttribute2& attribute) {
  if (typeid(attribute) != typeid(ZrXMLGenericAttribute)) return std::nullopt;
  return static_cast<const ZrXMLGenericAttribute&>(attribute).text();
}

std::string WrittenText(const ZrXMLComplexAttribute2& attribute) {
  std::ostringstream written;
  attribute.WriteValue(written);
  return std::move(written).str();
}

}  // namespace

void ZrXMLGenericElement::WriteAfterStartTag(std::ostream&) const {}

void ZrXMLGenericElement::WriteBeforeEndTag(std::ostream&) const {}

void ZrXMLGenericElement::CollectElementChildren(ZrXMLElementList& list) {
  for (ZrXMLComplexElement* child : Children()) {
    if (child != nullptr && child->AsGeneric() != nullptr) list.push_back(child->AsGeneric());
  }
}

void ZrXMLGenericElement::AssignAttributeText(const std::string& text) {
  const std::size_t equals = text.find('=');
  if (equals == std::string::npos) return;
  try {
    // The value lies between two characters that are taken for quotes. A text that ends at the
    // equals sign has no place for them; that is one of the failures noted below.
    std::string value = text.substr(equals + 2);
    if (!value.empty()) value.pop_back();
    SetAttribute(std::string_view(text).substr(0, equals), value);
  } catch (...) {
    SetError("error catched while assigning attritutes");
  }
}

bool ZrXMLGenericElement::SetAttribute(ZrNameView name, std::string_view value) {
  ZrAttributeMap::Owner& owner = MakeEntered().Obtain(name).owner;
  if (owner == nullptr) {
    // Not there so far, or there as a bare name.
    owner = std::make_unique<ZrXMLGenericAttribute>(value);
  } else {
    owner->SetFromString(std::string(value));
  }
  return true;
}

ZrXMLComplexAttribute2* ZrXMLGenericElement::Attribute(ZrNameView name) {
  const ZrAttributeMap::Place place = MakeEntered().Obtain(name);
  if (place.fresh) place.owner = std::make_unique<ZrXMLGenericAttribute>();
  return place.owner.get();
}

std::string ZrXMLGenericElement::AttributeValue(std::string_view name,
                                                std::string_view defaultValue) const {
  const ZrAttributeMap::Owner* const owner = FindAttribute(name);
  if (owner == nullptr) return std::string(defaultValue);
  if (*owner == nullptr) return {};
  const auto plain = PlainText(**owner);
  return plain ? std::string(*plain) : WrittenText(**owner);
}

bool ZrXMLGenericElement::AttributeEquals(std::string_view name, std::string_view value) const {
  const ZrAttributeMap::Owner* const owner = FindAttribute(name);
  if (owner == nullptr || *owner == nullptr) return false;
  const auto plain = PlainText(**owner);
  return plain ? *plain == value : WrittenText(**owner) == value;
}

bool ZrXMLGenericElement::HasAttribute(std::string_view name) const {
  return FindAttribute(name) != nullptr;
}

bool ZrXMLGenericElement::RemoveAttribute(std::string_view name) {
  return Entered() != nullptr && Attributes()->Erase(name);
}

bool ZrXMLGenericElement::PutByAttribute(ZrXMLGenericElement* newElement, ZrNameView attrName,
                                         std::string_view attrValue) {
  if (newElement == nullptr) return false;
  if (ReplaceByAttribute(newElement, attrName, attrValue)) return true;
  newElement->SetAttribute(attrName, attrValue);
  AddChild(newElement);
  return false;
}

void ZrXMLGenericElement::DeleteChildByAttribute(std::string_view attrName,
                                                 std::string_view attrValue) {
  for (std::size_t i = 0; i < Children().size(); ++i) {
    ZrXMLComplexElement* const child = Children()[i];
    if (child == nullptr || child->AsGeneric() == nullptr) continue;
    if (!child->AsGeneric()->AttributeEquals(attrName, attrValue)) continue;
    DestroyChildInPlace(i);
    EraseSlot(i);
    return;
  }
}

bool ZrXMLGenericElement::ReplaceByAttribute(ZrXMLGenericElement* newElement, ZrNameView attrName,
                                             std::string_view attrValue) {
  if (newElement == nullptr) return false;
  for (ZrXMLComplexElement* child : Children()) {
    ZrXMLGenericElement* const element = child != nullptr ? child->AsGeneric() : nullptr;
    if (element == nullptr || !element->AttributeEquals(attrName.text(), attrValue)) continue;
    ChildRemoved(element);
    SetParent(newElement, this);
    try {
      newElement->SetAttribute(attrName, attrValue);
    } catch (...) {
      SetParent(newElement, nullptr);  // not inserted yet: still the caller's
      throw;
    }
    return ExchangeChild(element, newElement);
  }
  for (std::size_t i = 0; i < Children().size(); ++i) {
    ZrXMLComplexElement* const child = Children()[i];
    if (child != nullptr && child->ReplaceByAttribute(newElement, attrName, attrValue)) return true;
  }
  return false;
}

bool ZrXMLGenericElement::AddAttribute(ZrNameView name, ZrXMLComplexAttribute2* attribute) {
  const ZrAttributeMap::Place place = MakeEntered().Obtain(name);
  if (!place.fresh) throw 2;
  place.owner.reset(attribute);
  return true;
}

void ZrXMLGenericElement::EnterMembers() {}

bool ZrXMLGenericElement::AnyMemberSet() const { return false; }

void ZrXMLGenericElement::EnterDeferred() {
  SetMembersDeferred(false);
  EnterMembers();
}

void ZrXMLGenericElement::Write(std::ostream& stream) const {
  WritePrologue(stream);
  zr::TagWriter tag(stream);
  tag << '<' << Name();
  ForEachWrittenAttribute([&](const std::string& name, const ZrXMLComplexAttribute2* attribute) {
    tag << ' ' << name;
    if (attribute == nullptr) return;
    tag << "=\"";
    if (const auto plain = PlainText(*attribute)) {
      tag << *plain;
    } else {
      tag.Flush();
      attribute->WriteValue(stream);
    }
    tag << '"';
  });
  if (!EndStartTag(tag)) return;
  WriteAfterStartTag(stream);
  bool previousOwnLine = true;
  for (const ZrXMLComplexElement* child : Children()) {
    const bool ownLine = child->OwnLine();
    if (ownLine && previousOwnLine) zr::Put(stream, "\n");
    child->Write(stream);
    previousOwnLine = child->OwnLine();
  }
  WriteBeforeEndTag(stream);
  if (!Children().empty() && previousOwnLine) tag << '\n';
  tag << "</" << Name() << '>';
  tag.Flush();
}
