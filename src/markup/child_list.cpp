#include "markup/child_list.h"

#include <algorithm>

#include "markup/complex_element.h"
#include "markup/graveyard.h"
#include "markup/node_memory.h"

bool ZrChildList::Holds(const ZrXMLComplexElement* child) const {
  return std::find(begin(), end(), child) != end();
}

void ZrChildList::MoveTo(Graveyard& graveyard) noexcept {
  if (first_ == nullptr) return;
  last_->next_ = graveyard.top_;
  graveyard.top_ = first_;
  first_ = last_ = nullptr;
  size_ = 0;
  stamp_ += kChange;
}

void ZrChildList::DestroyAll() noexcept {
  const zr::NodeFreeing freeing;
  Graveyard graveyard;
  MoveTo(graveyard);
  while (ZrXMLComplexElement* const child = graveyard.top_) {
    graveyard.top_ = child->next_;
    // The child's destructor lays its own children on top, so they come next.
    child->link_.graveyard = &graveyard;
    child->flags_ |= ZrXMLComplexElement::kOrphan;
    delete child;
  }
}
