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
  for (ZrXMLComplexElement* child : Children())
    if (child->AsGeneric() != nullptr) list.push_back(child->AsGeneric());
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
  if (ZrXMLComplexAttribute2* const member = FindMember(name.text())) {
    member->SetFromString(std::string(value));
    return true;
  }
  ZrAttributeMap::Owner& owner = MakeAttributes().Obtain(name).owner;
  if (owner == nullptr) {
    // Not there so far, or there as a bare name.
    owner = std::make_unique<ZrXMLGenericAttribute>(value);
  } else {
    owner->SetFromString(std::string(value));
  }
  return true;
}

ZrXMLComplexAttribute2* ZrXMLGenericElement::Attribute(ZrNameView name) {
  if (ZrXMLComplexAttribute2* const member = FindMember(name.text())) return member;
  const ZrAttributeMap::Place place = MakeAttributes().Obtain(name);
  if (place.fresh) place.owner = std::make_unique<ZrXMLGenericAttribute>();
  return place.owner.get();
}

ZrXMLGenericElement::Found ZrXMLGenericElement::FindAttribute(std::string_view name) const {
  if (const ZrXMLComplexAttribute2* const member = FindMember(name)) return {true, member};
  const ZrAttributeMap* const attributes = Attributes();
  const ZrAttributeMap::Owner* const owner =
      attributes != nullptr ? attributes->Find(name) : nullptr;
  return {owner != nullptr, owner != nullptr ? owner->get() : nullptr};
}

std::string ZrXMLGenericElement::AttributeValue(std::string_view name,
                                                std::string_view defaultValue) const {
  const Found found = FindAttribute(name);
  if (!found.there) return std::string(defaultValue);
  if (found.attribute == nullptr) return {};
  const auto plain = PlainText(*found.attribute);
  return plain ? std::string(*plain) : WrittenText(*found.attribute);
}

bool ZrXMLGenericElement::AttributeEquals(std::string_view name, std::string_view value) const {
  const Found found = FindAttribute(name);
  if (found.attribute == nullptr) return false;
  if (const auto plain = PlainText(*found.attribute)) return *plain == value;
  // What is not set writes nothing.
  return found.attribute->IsSet() ? WrittenText(*found.attribute) == value : value.empty();
}

bool ZrXMLGenericElement::HasAttribute(std::string_view name) const {
  return FindAttribute(name).there;
}

bool ZrXMLGenericElement::HasWrittenAttribute(std::string_view name) const {
  const Found found = FindAttribute(name);
  return found.there && (found.attribute == nullptr || found.attribute->IsSet());
}

bool ZrXMLGenericElement::RemoveAttribute(std::string_view name) {
  if (FindMember(name) != nullptr) {
    // From here on the others stand in the map, as this one may not come back.
    SetMembersApart(false);
    const Members members = ApartMembers();
    for (const Member& member : members) {
      MakeAttributes().Obtain(*member.name).owner =
          std::make_unique<ZrXMLComplexAttributeProxy2>(member.attribute);
    }
  }
  BeginChange();
  return Attributes() != nullptr && Attributes()->Erase(name);
}

bool ZrXMLGenericElement::PutByAttribute(ZrXMLGenericElement* newElement, ZrNameView attrName,
                                         std::string_view attrValue) {
  if (newElement == nullptr) return false;
  RequireFree(*newElement);
  if (ReplaceByAttribute(newElement, attrName, attrValue)) return true;
  newElement->SetAttribute(attrName, attrValue);
  AddChild(newElement);
  return false;
}

void ZrXMLGenericElement::DeleteChildByAttribute(std::string_view attrName,
                                                 std::string_view attrValue) {
  for (ZrXMLComplexElement* child : Children()) {
    ZrXMLGenericElement* const element = child->AsGeneric();
    if (element == nullptr || !element->AttributeEquals(attrName, attrValue)) continue;
    DestroyChild(child);
    return;
  }
}

bool ZrXMLGenericElement::ReplaceByAttribute(ZrXMLGenericElement* newElement, ZrNameView attrName,
                                             std::string_view attrValue) {
  if (newElement == nullptr) return false;
  for (ZrXMLComplexElement* child : Children()) {
    ZrXMLGenericElement* const element = child->AsGeneric();
    if (element == nullptr || !element->AttributeEquals(attrName.text(), attrValue)) continue;
    RequireFree(*newElement);
    const std::uint32_t stamp = Children().Stamp();
    ChildRemoved(element);
    newElement->SetAttribute(attrName, attrValue);
    return ExchangeChild(element, newElement, stamp);
  }
  for (ZrXMLComplexElement* child : Children())
    if (child->ReplaceByAttribute(newElement, attrName, attrValue)) return true;
  return false;
}

bool ZrXMLGenericElement::AddAttribute(ZrNameView name, ZrXMLComplexAttribute2* attribute) {
  if (FindMember(name.text()) != nullptr) throw 2;
  const ZrAttributeMap::Place place = MakeAttributes().Obtain(name);
  if (!place.fresh) throw 2;
  place.owner.reset(attribute);
  return true;
}

ZrXMLGenericElement::Members ZrXMLGenericElement::ApartMembers() const { return {}; }

bool ZrXMLGenericElement::WriteStart(std::ostream& stream) const {
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
  if (!EndStartTag(tag)) return false;
  WriteAfterStartTag(stream);
  return true;
}

// Goes down into plain elements by itself, so that a document of any depth takes no stack; a class
// of its own may write itself in its own way and is called.
void ZrXMLGenericElement::Write(std::ostream& stream) const {
  const zr::WriteCall call(kMaxWriteDepth);
  if (!WriteStart(stream)) return;
  const ZrXMLGenericElement* open = this;
  const ZrXMLComplexElement* child = Children().front();
  bool previousOwnLine = true;
  for (;;) {
    while (child != nullptr) {
      if (child->OwnLine() && previousOwnLine) zr::Put(stream, "\n");
      if (typeid(*child) != typeid(ZrXMLGenericElement)) {
        child->Write(stream);
      } else if (child->AsGeneric()->WriteStart(stream)) {
        open = child->AsGeneric();
        child = open->Children().front();
        previousOwnLine = true;
        continue;
      }
      previousOwnLine = child->OwnLine();
      child = child->NextSibling();
    }
    open->WriteBeforeEndTag(stream);
    open->WriteEnd(stream, !open->Children().empty() && previousOwnLine);
    if (open == this) return;
    previousOwnLine = open->OwnLine();
    child = open->NextSibling();
    open = open->Parent()->AsGeneric();
  }
}
