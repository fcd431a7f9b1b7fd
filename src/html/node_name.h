#pragma once
// Names of nodes whose class fixes them: made once, shared by all nodes of the class.

#include "markup/name.h"

namespace zr::html {

/// The name of the nodes of a class. `name` is the same literal at every call for that class.
/// Threads: any.
template <typename Node>
const ZrPermanentName& NodeName(const char* name) {
  static const ZrPermanentName kName(name);
  return kName;
}

}  // namespace zr::html
