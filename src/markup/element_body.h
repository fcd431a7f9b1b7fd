#pragma once
// What an element has that holds something; the leaves of a document, most of its nodes, do
// without. Not for use outside the node classes.

#include "markup/attribute_map.h"
#include "markup/child_list.h"
#include "markup/element_extras.h"
#include "markup/node_memory.h"

struct ZrElementBody : ZrInNodeMemory {
  /// What is read of an element without body: nothing in it.
  struct Empty {
    ZrChildList children;
    ZrElementExtras extras;
  };
  static const Empty& None() { return kNone.empty; }

  ZrChildList children;
  ZrElementExtras extras;
  ZrAttributeMap attributes;

 private:
  union NeverDestroyed {
    constexpr NeverDestroyed() : empty() {}
    ~NeverDestroyed() {}
    Empty empty;
  };
  static const NeverDestroyed kNone;
};
