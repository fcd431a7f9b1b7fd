#include "html/base_element.h"

#include <memory>
#include <sstream>

namespace {

/// Every element enters these, so their names are made once.
struct MemberNames {
  ZrPermanentName id{"id"};
  ZrPermanentName class_{"class"};
  ZrPermanentName style{"style"};
};

const MemberNames& Names() {
  static const MemberNames kNames;
  return kNames;
}

}  // namespace

ZrHTML_BaseElement2::ZrHTML_BaseElement2(ZrNameView elementName, bool closed,
                                         bool selfClosesWhenEmpty)
    : ZrXMLGenericElement(elementName, closed, selfClosesWhenEmpty, true) {
  SetMembersDeferred(true);
}

void ZrHTML_BaseElement2::EnterMembers() {
  ReserveAttributes(3);
  EnterMember(Names().id, id);
  EnterMember(Names().class_, class_);
  EnterMember(Names().style, style);
}

bool ZrHTML_BaseElement2::AnyMemberSet() const {
  return id.IsSet() || class_.IsSet() || style.IsSet();
}

void ZrHTML_BaseElement2::EnterMember(ZrNameView name, ZrXMLComplexAttribute2& member) {
  auto proxy = std::make_unique<ZrXMLComplexAttributeProxy2>(&member);
  AddAttribute(name, proxy.get());
  proxy.release();
}

std::string ZrHTML_BaseElement2::ToText() const {
  std::ostringstream text;
  Write(text);
  return std::move(text).str();
}
