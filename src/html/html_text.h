#pragma once
// The text node of HTML documents. Unlike the text of XML documents it stands on a line of its own
// when its element is written.

#include <iosfwd>
#include <string>
#include <string_view>

#include "html/base_element.h"
#include "html/node_name.h"

/// A text, written exactly as it is: "<" and "&" are markup to whoever reads the page. Named
/// "xmltext" in searches; takes no children.
class ZrHTML_text2 : public ZrHTML_BaseElement2 {
 public:
  ZrHTML_text2() : ZrHTML_text2(std::string_view()) {}
  explicit ZrHTML_text2(std::string_view text)
      : ZrHTML_BaseElement2(zr::html::NodeName<ZrHTML_text2>("xmltext"), true, false),
        text_(text) {}

  /// Appends to the text.
  virtual void AddText(std::string_view text) { text_ += text; }

  void Write(std::ostream& stream) const override;
  void WriteText(std::ostream& stream) const override;
  bool IsTextNode() const override { return true; }

 private:
  std::string text_;
};
