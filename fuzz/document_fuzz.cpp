// Documents of programs: what was read is written so that it reads again as the same text, in both
// kinds, and laying it out twice is laying it out once.

#include <cstdint>
#include <string>
#include <string_view>

#include "fuzz/check.h"
#include "velkoro/documents.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  for (const auto kind : {velkoro::DocumentKind::kXml, velkoro::DocumentKind::kHtml}) {
    try {
      velkoro::Document document = velkoro::Document::ReadText(text, kind);
      const std::string written = document.Text();
      ZR_FUZZ_CHECK(document.Copy().Text() == written);
      ZR_FUZZ_CHECK(velkoro::Document::ReadText(written, kind).Text() == written);
      document.Indent();
      const std::string laidOut = document.Text();
      document.Indent();
      ZR_FUZZ_CHECK(document.Text() == laidOut);
    } catch (const velkoro::DocumentError& e) {
      ZR_FUZZ_CHECK(std::string_view(e.what()).size() > 5);
    }
  }
  return 0;
}
