#include "html/form_elements.h"

#include <memory>

#include "html/html_text.h"

ZrHTML_form2::ZrHTML_form2(const std::string& actionText, const std::string& methodText)
    : Group(zr::html::NodeName<ZrHTML_form2>("form")) {
  EnterMember("method", method);
  EnterMember("action", action);
  if (!actionText.empty()) action.SetFromString(actionText);
  if (!methodText.empty()) method.SetFromString(methodText);
}

ZrHTML_input2::ZrHTML_input2() : Group(zr::html::NodeName<ZrHTML_input2>("input")) {
  EnterMember("name", name);
  EnterMember("value", value);
  EnterMember("type", type);
}

ZrHTML_label2::ZrHTML_label2(const std::string& fieldId, const std::string& text)
    : Group(zr::html::NodeName<ZrHTML_label2>("label")) {
  EnterMember("for", for_);
  if (!fieldId.empty()) for_.SetFromString(fieldId);
  if (!text.empty()) AppendText(text);
}

ZrHTML_option2::ZrHTML_option2(const std::string& valueText, const std::string& text,
                               bool isSelected)
    : Group(zr::html::NodeName<ZrHTML_option2>("option")) {
  EnterMember("value", value);
  value.SetFromString(valueText);
  if (isSelected) {
    EnterMember("selected", selected);
    selected.SetFromText("true");
  }
  Adopt(std::make_unique<ZrHTML_text2>(text));
}

ZrHTML_progress2::ZrHTML_progress2() : Group(zr::html::NodeName<ZrHTML_progress2>("progress")) {
  EnterMember("value", value);
  EnterMember("max", max);
}

ZrHTML_select2::ZrHTML_select2(const std::string& idText, const std::string& nameText)
    : Group(zr::html::NodeName<ZrHTML_select2>("select")) {
  SetAttribute("name", nameText);
  if (!idText.empty()) id.SetFromString(idText);
}
