#include "html/base_element.h"

#include <memory>
#include <sstream>

namespace {

/// Short enough to need no memory; never destroyed, as nodes may outlive the program's statics.
struct MemberNames {
  const std::string class_{"class"};
  const std::string id{"id"};
  const std::string style{"style"};
};

const MemberNames& Names() {
  union Forever {
    Forever() : names() {}
    ~Forever() {}
    MemberNames names;
  };
  static const Forever kForever;
  return kForever.names;
}

}  // namespace

ZrHTML_BaseElement2::ZrHTML_BaseElement2(ZrNameView elementName, bool closed,
                                         bool selfClosesWhenEmpty)
    : ZrXMLGenericElement(elementName, closed, selfClosesWhenEmpty, true) {
  SetMembersApart(true);
}

ZrXMLGenericElement::Members ZrHTML_BaseElement2::ApartMembers() const {
  // Looked for by const and other operations alike; only the others change what they find.
  auto* const self = const_cast<ZrHTML_BaseElement2*>(this);
  const MemberNames& names = Names();
  return {{{&names.class_, &self->class_}, {&names.id, &self->id}, {&names.style, &self->style}}};
}

void ZrHTML_BaseElement2::EnterMember(ZrNameView name, ZrXMLComplexAttribute2& member) {
  auto proxy = std::make_unique<ZrXMLComplexAttributeProxy2>(&member);
  AddAttribute(name, proxy.get());
  static_cast<void>(proxy.release());
}

std::string ZrHTML_BaseElement2::ToText() const {
  std::ostringstream text;
  Write(text);
  return std::move(text).str();
}
