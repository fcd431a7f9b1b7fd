// Elements as client-side script.

#include <sstream>

#include "html/base_element.h"

namespace {

/// The letter that stands for the character behind a backslash in a quoted script text; 0 for a
/// character that stands for itself.
char EscapeLetter(char ch) {
  switch (ch) {
    case '\r':
      return 'r';
    case '\n':
      return 'n';
    case '\t':
      return 't';
    case '\f':
      return 'f';
    case '\b':
      return 'b';
    case '\\':
    case '"':
    case '\'':
      return ch;
    default:
      return 0;
  }
}

std::string Escaped(std::string_view text) {
  std::string escaped;
  escaped.reserve(text.size() + text.size() / 8);
  for (const char ch : text) {
    const char letter = EscapeLetter(ch);
    if (letter != 0) escaped += '\\';
    escaped += letter != 0 ? letter : ch;
  }
  return escaped;
}

}  // namespace

std::string ZrHTML_BaseElement2::ToScript() const {
  std::ostringstream script;
  script << "{\nvar newelem = document.createElement('" << Name() << "');\n";
  ForEachWrittenAttribute([&](const std::string& name, const ZrXMLComplexAttribute2* attribute) {
    if (attribute == nullptr) return;
    script << "newelem.setAttribute('" << name << "','";
    attribute->WriteValue(script);
    script << "');\n";
  });
  std::ostringstream content;
  for (const ZrXMLComplexElement* child : Children()) child->Write(content);
  script << "newelem.innerHTML=\"" << Escaped(std::move(content).str()) << "\";\n"
         << "document.appendChild(newelem);\n }";
  return std::move(script).str();
}
