#pragma once
// The document kinds that this layer adds to the markup reader: "html", "xmlhtml" (HTML within XML:
// no document type line, plain text nodes), "css" and "cssRule" (what stands in a rule's braces).
// A reader built with HtmlDocumentKinds() reads pages into element classes and style sheets into
// CSS nodes.
//
// Limits of the HTML reader: an end tag is required for every element that is no void element, tags
// are matched in lower case, scripts are read as markup, and the token that follows a void element
// written without "/" closes it and is gone ("<br>text" loses "text", "<br><b>" is an error; write
// "<br />").

#include <memory>
#include <span>
#include <string>

#include "markup/dtd.h"
#include "markup/generic_element.h"

namespace zr {

/// The four kinds, for the constructor of a reader. They live as long as the program.
std::span<const ZrDTDDefinition> HtmlDocumentKinds();

/// A new element for the tag: of the tag's class when the kind has a factory for it, otherwise,
/// also for a tag in upper case, a plain element of that name.
std::unique_ptr<ZrXMLGenericElement> CreateElement(ZrDTD& dtd, std::string_view tag);

}  // namespace zr
