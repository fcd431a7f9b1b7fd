#pragma once
// Trees as one line of text, and inputs read in every way a source can deliver them.

#include <span>
#include <string>
#include <string_view>

#include "markup/zrdtd.h"
#include "markup/zrxmlcomplexelement.h"

namespace zr_test {

/// Elements as name[attribute=value bare](children), text as 'text', whitespace as {n} for a line
/// feed and {.} for a blank, comments as !text!, processing instructions as ?text?.
std::string Dump(const ZrXMLComplexElement& node);

/// The node as Write() gives it.
std::string Written(const ZrXMLComplexElement& node);

/// What reading gives: the dump of all top-level nodes, "@" and the line, and after a failure "#"
/// and its message. Reads the input whole, byte by byte from a stream and byte by byte from a
/// source that implements nothing but the four character operations; a difference is a test
/// failure.
std::string Read(std::string_view input, std::string_view dtd = "xml",
                 std::span<const ZrDTDDefinition> kinds = {});

}  // namespace zr_test
