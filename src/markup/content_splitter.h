#pragma once

#include <cstddef>
#include <memory>

#include "markup/generic_element.h"
#include "markup/name.h"

/// The parser's building state: what has been read so far and where the next node goes.
struct ZrXMLContentSplitter {
  /// Input nested deeper is refused: what works on the tree afterwards recurses along it.
  static constexpr std::size_t kMaxDepth = 1000;

  /// Holds every top-level node of the input.
  std::unique_ptr<ZrXMLGenericElement> top =
      std::make_unique<ZrXMLGenericElement>("ZrXMLContentSplitter::TOP", true);
  /// Receives the next node; moves along parent links only. Not owned.
  ZrXMLComplexElement* current = top.get();
  /// The active document kind; empty before the first token.
  ZrName dtdName;
  /// Open elements, the top element not counted.
  std::size_t depth = 0;
};
