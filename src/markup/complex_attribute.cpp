#include "markup/complex_attribute.h"

#include <algorithm>

#include "base/number.h"
#include "markup/write.h"

void ZrXMLComplexAttribute2::WriteValue(std::ostream&) const {}

void ZrXMLComplexAttribute2::SetFromText(const char*) {}

void ZrXMLComplexAttribute2::SetFromString(const std::string&) {}

void ZrXMLGenericAttribute::WriteValue(std::ostream& stream) const {
  zr::Put(stream, text_.view());
}

void ZrXMLStringZrAttribute::WriteValue(std::ostream& stream) const {
  if (isSet_) zr::Put(stream, text_);
}

void ZrXMLStringZrAttribute::SetFromText(const char* text) {
  isSet_ = text != nullptr;
  text_ = text != nullptr ? text : "";
}

void ZrXMLStringZrAttribute::SetFromString(const std::string& text) {
  isSet_ = true;
  text_ = text;
}

void ZrXMLDoubleZrAttribute::WriteValue(std::ostream& stream) const {
  if (isSet_) zr::Put(stream, zr::FormatGeneral(value_));
}

void ZrXMLDoubleZrAttribute::SetFromText(const char* text) {
  isSet_ = text != nullptr;
  value_ = 0;
  if (text == nullptr || *text == '\0') return;
  try {
    value_ = zr::ParseDouble(text);
  } catch (const std::exception&) {
    // Text that is no number counts as 0 here; SetFromString() tells.
  }
}

void ZrXMLDoubleZrAttribute::SetFromString(const std::string& text) {
  isSet_ = true;
  value_ = zr::ParseDouble(text);
}

void ZrXMLBoolZrAttribute::WriteValue(std::ostream& stream) const {
  if (isSet_) zr::Put(stream, value_ ? "1" : "0");
}

void ZrXMLBoolZrAttribute::SetFromText(const char* text) {
  isSet_ = text != nullptr;
  value_ = false;
  if (text != nullptr && *text != '\0') SetFromString(text);
}

void ZrXMLBoolZrAttribute::SetFromString(const std::string& text) {
  isSet_ = true;
  if (const auto number = zr::ParseLeadingInteger(text)) {
    value_ = *number != 0;
    return;
  }
  constexpr std::string_view kTrue = "true";
  // Letter by letter instead of a locale's lower case.
  value_ = std::equal(text.begin(), text.end(), kTrue.begin(), kTrue.end(), [](char c, char lower) {
    return (c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c) == lower;
  });
}
