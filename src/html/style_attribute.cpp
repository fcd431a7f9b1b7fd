#include "html/style_attribute.h"

#include <optional>
#include <ostream>
#include <string_view>

#include "base/exception.h"
#include "base/trim.h"

namespace {

/// Cuts the text up to the next separator off and returns it. Pieces between two separators may be
/// empty; an empty one at the end of the text is none.
std::optional<std::string_view> NextPiece(std::string_view& text, char separator) {
  if (text.empty()) return std::nullopt;
  const std::size_t end = text.find(separator);
  const std::string_view piece = text.substr(0, end);
  text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
  return piece;
}

}  // namespace

void ZrStyleAttribute::WriteValue(std::ostream& stream) const {
  for (const auto& [name, property] : properties_)
    if (property && !property->IsEmpty()) property->Write(stream);
}

void ZrStyleAttribute::SetFromText(const char* text) {
  if (text != nullptr && *text != '\0') SetFromString(text);
}

void ZrStyleAttribute::AddFromString(const std::string& text) {
  std::string_view rest = text;
  while (const auto piece = NextPiece(rest, ';')) {
    std::string_view declaration = zr::Trim(*piece);
    const auto name = NextPiece(declaration, ':');
    if (!name) continue;
    const auto value = NextPiece(declaration, ':');
    if (!value || !declaration.empty())
      throw ZrException("style syntax wrong at: >" + text + "< ", 59, "src");
    std::string canonical(zr::Trim(*name));
    canonical.append(":").append(zr::Trim(*value)).append(";");
    auto property = std::make_shared<ZrCSSProperty>(canonical, false);
    std::string key = property->PropertyName();
    properties_.insert_or_assign(std::move(key), std::move(property));
  }
}

std::shared_ptr<ZrCSSProperty> ZrStyleAttribute::Property(const std::string& name) {
  const auto found = properties_.find(name);
  if (found != properties_.end()) return found->second;
  auto property = std::make_shared<ZrCSSProperty>(name, true);
  properties_.emplace(name, property);
  return property;
}
