#include "http/preferences.h"

#include <algorithm>
#include <optional>

#include "http/field_list.h"

namespace {

struct Element {
  std::string_view text;  // without parameters
  zr::Weight weight = zr::kFullWeight;
};

/// Nothing when the weight cannot be read. Parameters of a media range are not looked at.
std::optional<Element> ReadElement(std::string_view element) {
  Element read;
  std::size_t end = element.find(';');
  read.text = zr::TrimBlanks(element.substr(0, end));
  while (end != std::string_view::npos) {
    element.remove_prefix(end + 1);
    end = element.find(';');
    const std::string_view parameter = zr::TrimBlanks(element.substr(0, end));
    if (parameter.size() < 2 || !zr::EqualsIgnoringCase(parameter.substr(0, 2), "q=")) continue;
    read.weight = zr::ReadWeight(parameter.substr(2));
    if (read.weight < 0) return std::nullopt;
  }
  return read;
}

/// Calls `visit` with every element that can be read.
template <class Visit>
void ForEachElement(const ZrHeaderFields::Values& values, Visit visit) {
  zr::AllListElements(
      values,
      [&](std::string_view text) {
        const std::optional<Element> element = ReadElement(text);
        if (element && !element->text.empty()) visit(*element);
        return true;
      });
}

/// Unnamed, a coding is refused and the plain body is the last resort.
struct CodingWeights {
  explicit CodingWeights(const ZrHeaderFields::Values& acceptEncoding) {
    std::optional<zr::Weight> ofIdentity, ofGzip, ofBrotli, others;
    ForEachElement(acceptEncoding, [&](const Element& element) {
      const auto named = [&](std::string_view name) {
        return zr::EqualsIgnoringCase(element.text, name);
      };
      if (named("br")) ofBrotli = element.weight;
      if (named("gzip") || named("x-gzip")) ofGzip = element.weight;
      if (named("identity")) ofIdentity = element.weight;
      if (named("*")) others = element.weight;
    });
    brotli = ofBrotli.value_or(others.value_or(0));
    gzip = ofGzip.value_or(others.value_or(0));
    identity = ofIdentity.value_or(0);
  }
  zr::Weight brotli, gzip, identity;
};

}  // namespace

zr::Weight zr::ReadWeight(std::string_view text) {
  constexpr std::size_t kMostDecimals = 3;
  if (text.empty() || (text[0] != '0' && text[0] != '1')) return -1;
  Weight weight = (text[0] - '0') * kFullWeight;
  if (text.size() == 1) return weight;
  if (text[1] != '.' || text.size() > 2 + kMostDecimals) return -1;
  Weight worth = kFullWeight;
  for (const char digit : text.substr(2)) {
    if (digit < '0' || digit > '9') return -1;
    worth /= 10;
    weight += (digit - '0') * worth;
  }
  return weight <= kFullWeight ? weight : -1;
}

ZrCoding zr::ChooseCoding(const ZrHeaderFields::Values& acceptEncoding,
                          const ZrCodingOffer& offer) {
  const CodingWeights weights(acceptEncoding);
  const Weight ofBrotli = offer.brotli ? weights.brotli : 0;
  const Weight ofGzip = offer.gzip ? weights.gzip : 0;
  if (ofBrotli > 0 && ofBrotli >= ofGzip && ofBrotli >= weights.identity) return ZrCoding::kBrotli;
  if (ofGzip > 0 && ofGzip >= weights.identity) return ZrCoding::kGzip;
  return ZrCoding::kIdentity;
}

ZrCodingOffer zr::WantedCodings(const ZrHeaderFields::Values& acceptEncoding) {
  const CodingWeights weights(acceptEncoding);
  return {.gzip = weights.gzip > 0 && weights.gzip >= weights.identity,
          .brotli = weights.brotli > 0 && weights.brotli >= weights.identity};
}

std::string_view zr::CodingName(ZrCoding coding) {
  switch (coding) {
    case ZrCoding::kGzip:
      return "gzip";
    case ZrCoding::kBrotli:
      return "br";
    case ZrCoding::kIdentity:
      break;
  }
  return {};
}

zr::Weight zr::MediaWeight(const ZrHeaderFields::Values& accept, std::string_view type) {
  if (accept.empty()) return kFullWeight;
  const std::string_view family = type.substr(0, type.find('/') + 1);
  int exactness = 0;
  Weight weight = 0;
  ForEachElement(accept, [&](const Element& element) {
    const std::string_view range = element.text;
    int exact = 0;
    if (range == "*/*") exact = 1;
    if (range.ends_with("/*") && EqualsIgnoringCase(range.substr(0, range.size() - 1), family))
      exact = 2;
    if (EqualsIgnoringCase(range, type)) exact = 3;
    if (exact == 0 || exact < exactness) return;
    weight = exact == exactness ? std::max(weight, element.weight) : element.weight;
    exactness = exact;
  });
  return weight;
}

bool zr::PrefersJson(const ZrHeaderFields::Values& accept) {
  const Weight json = std::max(MediaWeight(accept, "application/json"),
                               MediaWeight(accept, "application/problem+json"));
  return json > MediaWeight(accept, "text/html");
}
