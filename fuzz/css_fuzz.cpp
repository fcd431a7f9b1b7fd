// Style sheets.

#include "fuzz/markup_property.h"
#include "html/html_dtd.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  zr::fuzz::CheckMarkup(data, size, "css", zr::HtmlDocumentKinds(),
                        [](const ZrXMLComplexElement&) { return true; });
  return 0;
}
