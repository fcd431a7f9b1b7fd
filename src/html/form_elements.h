#pragma once
// The HTML tags of forms that have members or constructor arguments. Members are typed attributes;
// one that was never set writes nothing. Built without arguments each class is what the markup
// reader makes of a start tag.

#include <string>

#include "html/html_element_types.h"

/// A form; an empty address or method is not set.
class ZrHTML_form2 : public zr::html::OrdinaryTextB {
 public:
  explicit ZrHTML_form2(const std::string& actionText = {}, const std::string& methodText = "POST");

  ZrXMLStringZrAttribute method;
  ZrXMLStringZrAttribute action;
};

/// A field of a form.
class ZrHTML_input2 : public zr::html::Void {
 public:
  ZrHTML_input2();

  ZrXMLStringZrAttribute name;
  ZrXMLStringZrAttribute value;
  ZrXMLStringZrAttribute type;
};

/// The caption of a field; `for_` is the attribute "for". Empty arguments are not set.
class ZrHTML_label2 : public zr::html::OrdinaryText {
 public:
  explicit ZrHTML_label2(const std::string& fieldId = {}, const std::string& text = {});

  ZrXMLStringZrAttribute for_;
};

/// A choice of a list.
class ZrHTML_option2 : public zr::html::OptionalEnd {
 public:
  /// The value is set and the text becomes a text node also when they are empty. The attribute
  /// "selected" exists only on an element built as selected.
  explicit ZrHTML_option2(const std::string& valueText = {}, const std::string& text = {},
                          bool isSelected = false);

  ZrXMLStringZrAttribute value;
  ZrXMLBoolZrAttribute selected;
};

/// The progress of a task.
class ZrHTML_progress2 : public zr::html::OrdinaryText {
 public:
  ZrHTML_progress2();

  ZrXMLDoubleZrAttribute value;
  ZrXMLDoubleZrAttribute max;
};

/// A list to choose from. The name is set also when it is empty, the id is not.
class ZrHTML_select2 : public zr::html::Ordinary {
 public:
  explicit ZrHTML_select2(const std::string& idText = {}, const std::string& nameText = {});
};
