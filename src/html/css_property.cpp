#include "html/css_property.h"

#include "base/exception.h"
#include "base/trim.h"
#include "html/node_name.h"
#include "markup/write.h"

namespace {
constexpr std::string_view kAroundValues = " ;\n\t\r";
}  // namespace

ZrCSSProperty::ZrCSSProperty(std::string_view text, bool nameOnly)
    : ZrXMLComplexElement(zr::html::NodeName<ZrCSSProperty>("cssproperty"), false, true) {
  if (nameOnly) {
    if (text.empty()) throw ZrException("CSS property must have a name", 962, "src");
    propertyName_ = zr::Trim(text, kAroundValues);
    return;
  }
  const std::size_t colon = text.find(':');
  if (colon == std::string_view::npos)
    throw ZrException("CSS property not well formed (missing ':').", 969, "src");
  propertyName_ = zr::Trim(text.substr(0, colon));
  propertyValue_ = zr::Trim(text.substr(colon + 1), kAroundValues);
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
