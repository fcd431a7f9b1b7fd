#pragma once
// Destruction without recursion. The element at which a destruction begins owns a graveyard; every
// element below it lays its children there instead of destroying them itself. A graveyard is a
// stack linked through the nodes, so nothing is allocated. Not for use outside the node classes.

#include "markup/child_list.h"

class ZrChildList::Graveyard {
 private:
  friend class ZrChildList;
  ZrXMLComplexElement* top_ = nullptr;
};
