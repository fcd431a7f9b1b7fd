#pragma once
// Names and texts as documents write them; what velkoro::Escape() and velkoro::Unescape() stand on
// is in document_text.cpp. Not for use outside the document facade.

#include <string_view>

namespace zr {

/// Whether the text may be the name of an element or an attribute.
bool IsDocumentName(std::string_view name);
/// Equal but for the case of ASCII letters; `lower` has none in upper case.
bool EqualsLower(std::string_view text, std::string_view lower);
/// Whether the tag of a page never has content; its name in lower case.
bool IsVoidTag(std::string_view name);

}  // namespace zr
