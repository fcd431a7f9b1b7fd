#pragma once
// What a request would rather have: "Accept" and "Accept-Encoding" with their weights (RFC 9110,
// 12.4 and 12.5).

#include <cstdint>
#include <string_view>

#include "http/header_fields.h"

/// The codings that a body may be sent in.
enum class ZrCoding : std::uint8_t { kIdentity, kGzip, kBrotli };

/// The codings that there are of one body, besides itself.
struct ZrCodingOffer {
  bool gzip = false;
  bool brotli = false;
};

namespace zr {

/// A weight in thousandths: 0 is "not acceptable", 1000 is the default.
using Weight = int;
inline constexpr Weight kFullWeight = 1000;

/// The value of a "q" parameter: "0" or "1" with up to three decimals, "1" with zeros only. -1 for
/// any other text.
Weight ReadWeight(std::string_view text);

/// The coding to send: the one with the greatest weight, of equal ones brotli before gzip before
/// identity. Elements that cannot be read are skipped. Identity also when the request refuses all
/// that there is: it can read that more likely than an error page.
ZrCoding ChooseCoding(const ZrHeaderFields::Values& acceptEncoding, const ZrCodingOffer& offer);
/// The codings that ChooseCoding() would choose if each were the only one.
ZrCodingOffer WantedCodings(const ZrHeaderFields::Values& acceptEncoding);
/// The token of "Content-Encoding"; empty for identity.
std::string_view CodingName(ZrCoding coding);

/// The weight that an "Accept" field gives a media type (lower case, "type/subtype"): that of the
/// most exact range that it falls in, full weight without the field.
Weight MediaWeight(const ZrHeaderFields::Values& accept, std::string_view type);
/// Whether JSON is wanted more than HTML; also when "application/problem+json" is.
bool PrefersJson(const ZrHeaderFields::Values& accept);

}  // namespace zr
