#include "html/zrcssproperty.h"

#include <string_view>

#include "host/zrexception.h"
#include "html/zrnodename.h"
#include "markup/zrwrite.h"

namespace {

std::string_view Trim(std::string_view text, std::string_view characters) {
  const std::size_t first = text.find_first_not_of(characters);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(characters) + 1 - first);
}

constexpr std::string_view kAroundValues = " ;\n\t\r";

}  // namespace

ZrCSSProperty::ZrCSSProperty(const std::string& text, bool nameOnly)
    : ZrXMLComplexElement(zr::html::NodeName<ZrCSSProperty>("cssproperty"), false, true) {
  const std::string_view whole = text;
  if (nameOnly) {
    if (text.empty()) throw ZrException("CSS property must have a name", 962, "src");
    propertyName_ = Trim(whole, kAroundValues);
    return;
  }
  const std::size_t colon = whole.find(':');
  if (colon == std::string_view::npos) {
    throw ZrException("CSS property not well formed (missing ':').", 969, "src");
  }
  propertyName_ = Trim(whole.substr(0, colon), " ");
  propertyValue_ = Trim(whole.substr(colon + 1), kAroundValues);
}

void ZrCSSProperty::Write(std::ostream& stream) const {
  if (propertyValue_.empty()) return;
  WritePrologue(stream);
  zr::TagWriter declaration(stream);
  declaration << propertyName_ << ": " << propertyValue_ << ';';
  declaration.Flush();
}

void ZrCSSProperty::ChildAdded(ZrXMLComplexElement* /*child*/) {
  throw ZrException("no childs possible", 984, "src");
}
