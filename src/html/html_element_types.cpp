#include "html/html_element_types.h"

#include "html/html_text.h"

ZrHTML_text2& ZrHTML_ElementType0A::AppendText(std::string_view text) {
  if (!pendingText_) pendingText_ = std::make_unique<std::string>();
  pendingText_->append(text);
  return FlushText();
}

ZrHTML_text2& ZrHTML_ElementType0A::FlushText() {
  auto node = pendingText_ ? std::make_unique<ZrHTML_text2>(*pendingText_)
                           : std::make_unique<ZrHTML_text2>();
  ZrHTML_text2& added = *Adopt(std::move(node));
  pendingText_.reset();
  return added;
}
