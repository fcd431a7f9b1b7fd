// "Accept-Encoding" and "Accept": only what there is gets chosen, weights stay in their range, and
// a list cut at its commas into several fields means the same.

#include "fuzz/check.h"
#include "http/preferences.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  ZrHeaderFields whole;
  ZrHeaderFields cut;
  whole.Append("f", text);
  for (std::string_view rest = text;;) {
    const std::size_t comma = rest.find(',');
    cut.Append("f", rest.substr(0, comma));
    if (comma == std::string_view::npos) break;
    rest.remove_prefix(comma + 1);
  }
  for (const ZrCodingOffer offer : {ZrCodingOffer{}, ZrCodingOffer{true, false},
                                    ZrCodingOffer{false, true}, ZrCodingOffer{true, true}}) {
    const ZrCoding coding = zr::ChooseCoding(whole["f"], offer);
    ZR_FUZZ_CHECK(coding != ZrCoding::kGzip || offer.gzip);
    ZR_FUZZ_CHECK(coding != ZrCoding::kBrotli || offer.brotli);
    ZR_FUZZ_CHECK(coding == zr::ChooseCoding(cut["f"], offer));
    const ZrCodingOffer wanted = zr::WantedCodings(whole["f"]);
    const bool wants = (offer.gzip && wanted.gzip) || (offer.brotli && wanted.brotli);
    ZR_FUZZ_CHECK(wants == (coding != ZrCoding::kIdentity));
  }
  const zr::Weight html = zr::MediaWeight(whole["f"], "text/html");
  ZR_FUZZ_CHECK(html >= 0 && html <= zr::kFullWeight);
  ZR_FUZZ_CHECK(html == zr::MediaWeight(cut["f"], "text/html"));
  ZR_FUZZ_CHECK(zr::PrefersJson(whole["f"]) == zr::PrefersJson(cut["f"]));
  return 0;
}
