#pragma once
// The document parser: tokens of a reader become a tree. Every failure is a ZrException whose
// message ends in the input line where it happened, " around line N".

#include <istream>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "markup/element_reader.h"

namespace zr {

/// Reads tokens until the input ends, or one token with stopAfterOne, and returns the splitter's
/// top element, which stays in the splitter; its children are the top-level nodes read so far.
/// dtdName is the document kind to begin with and counts in the first call only. Elements still
/// open at the end stay in the tree as they are. Throws ZrException: "missing topelement", "DTD
/// can't be empty" (both without a line), "error in stream", "DTD 'NAME' not defined", "reading
/// error ", "incomplete tag 'NAME'", "wrong closing tag 'TOKEN' instead '/NAME'", "elements nested
/// deeper than 1000", what a node refuses, and the like. What was read before stays in the
/// splitter.
ZrXMLGenericElement* Parse(ZrXMLContentSplitter& splitter, ZrDTDElementReader& reader,
                           std::string_view dtdName, bool stopAfterOne);

/// Reads a whole document and returns its root: the first top-level node that stands on a line of
/// its own, which the caller owns. Declaration, comments and whitespace around it are dropped. Null
/// when the input holds none, errorText then being left alone, and when it is malformed, errorText
/// then holding the message.
std::unique_ptr<ZrXMLComplexElement> ParseStream(
    std::istream& stream, std::string_view dtdName, std::string& errorText,
    std::span<const ZrDTDDefinition> furtherKinds = {});

}  // namespace zr
