#include "http/semantics.h"

#include <string>

#include "base/exception.h"
#include "http/semantics_minimal.h"
#include "http/semantics_standard.h"

namespace {

constexpr ZrMinimalSemantics kMinimal;
constexpr ZrStandardSemantics kStandard;

}  // namespace

const ZrSemantics& ZrSemantics::Minimal() { return kMinimal; }

const ZrSemantics& ZrSemantics::Standard() { return kStandard; }

const ZrSemantics& ZrSemantics::Named(std::string_view name) {
  if (name.empty() || name == "minimal") return Minimal();
  if (name == "standard") return Standard();
  throw ZrException("unknown semantics: " + std::string(name));
}
