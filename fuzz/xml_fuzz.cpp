// XML documents.

#include "fuzz/markup_property.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  zr::fuzz::CheckMarkup(data, size, "xml", {}, [](const ZrXMLComplexElement&) { return true; });
  return 0;
}
