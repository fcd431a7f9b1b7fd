#pragma once
// The steps of a list of children through the links in its nodes. Every walk and every insertion
// takes them, so they stand in a header; complex_element.h has it at its end.

#include "markup/child_list.h"
#include "markup/complex_element.h"

inline ZrChildList::Iterator& ZrChildList::Iterator::operator++() {
  node_ = node_->next_;
  return *this;
}
inline ZrChildList::Iterator& ZrChildList::Iterator::operator--() {
  node_ = node_ != nullptr ? node_->previous_ : list_->last_;
  return *this;
}
inline void ZrChildList::Insert(ZrXMLComplexElement* before, ZrXMLComplexElement* child) {
  ZrXMLComplexElement* const previous = before != nullptr ? before->previous_ : last_;
  child->previous_ = previous;
  child->next_ = before;
  (previous != nullptr ? previous->next_ : first_) = child;
  (before != nullptr ? before->previous_ : last_) = child;
  ++size_;
  stamp_ += kChange;
}
inline void ZrChildList::Erase(ZrXMLComplexElement* child) {
  (child->previous_ != nullptr ? child->previous_->next_ : first_) = child->next_;
  (child->next_ != nullptr ? child->next_->previous_ : last_) = child->previous_;
  child->next_ = child->previous_ = nullptr;
  --size_;
  stamp_ += kChange;
}
inline void ZrChildList::Exchange(ZrXMLComplexElement* oldChild, ZrXMLComplexElement* newChild) {
  Insert(oldChild, newChild);
  Erase(oldChild);
}
