#include "http/semantics.h"

#include <string>

#include "base/exception.h"
#include "http/semantics_minimal.h"

namespace {

constexpr ZrMinimalSemantics kMinimal;

}  // namespace

const ZrSemantics& ZrSemantics::Minimal() { return kMinimal; }

const ZrSemantics& ZrSemantics::Named(std::string_view name) {
  if (name.empty() || name == "minimal") return Minimal();
  throw ZrException("unknown semantics: " + std::string(name), __LINE__, "src");
}
