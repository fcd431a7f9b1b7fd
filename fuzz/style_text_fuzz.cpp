// Texts of style attributes: what was read and written reads again to the same text.

#include <cstddef>
#include <cstdint>
#include <sstream>
#include <string>

#include "base/exception.h"
#include "fuzz/check.h"
#include "html/style_attribute.h"

namespace {

std::string Written(const ZrStyleAttribute& style) {
  std::ostringstream text;
  style.WriteValue(text);
  return text.str();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  ZrStyleAttribute style;
  try {
    style.SetFromString(text);
  } catch (const ZrException&) {
    // The declarations before the mistake stay; they must be whole.
  }
  ZrStyleAttribute again;
  again.SetFromString(Written(style));  // throwing here is a finding
  ZR_FUZZ_CHECK(Written(again) == Written(style));
  return 0;
}
