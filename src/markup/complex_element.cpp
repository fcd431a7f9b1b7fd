#include "markup/complex_element.h"

#include "base/exception.h"
#include "markup/write.h"

constinit const ZrXMLComplexElement::NoBody ZrXMLComplexElement::kNoBody;

ZrXMLComplexElement::~ZrXMLComplexElement() {
  if (body_ == nullptr) return;
  if (ZrElementObserver* const observer = Observer()) observer->ElementGoesAway(*this);
  if ((flags_ & kOrphan) != 0) {
    body_->children.MoveTo(*link_.graveyard);
  } else {
    body_->children.DestroyAll();
  }
  delete body_;
}

void ZrXMLComplexElement::WritePrologue(std::ostream&) const {}

void ZrXMLComplexElement::ChildAdded(ZrXMLComplexElement*) {}

void ZrXMLComplexElement::ChildRemoved(ZrXMLComplexElement*) {}

bool ZrXMLComplexElement::OwnLine() const { return (flags_ & kOwnLine) != 0; }

std::string ZrXMLComplexElement::Value(ZrNameView newValue) {
  if (!newValue.empty()) MakeBody().extras.SetValue(newValue);
  return StoredValue();
}

void ZrXMLComplexElement::WriteText(std::ostream& stream) const {
  for (const ZrXMLComplexElement* child : Children()) child->WriteText(stream);
}

bool ZrXMLComplexElement::IsClosed() const { return (flags_ & kClosed) != 0; }

void ZrXMLComplexElement::SetClosed(bool closed) { SetFlag(kClosed, closed); }

bool ZrXMLComplexElement::SelfClosesWhenEmpty() const { return (flags_ & kSelfCloses) != 0; }

void ZrXMLComplexElement::SetSelfClosesWhenEmpty(bool selfCloses) {
  SetFlag(kSelfCloses, selfCloses);
}

bool ZrXMLComplexElement::EndStartTag(zr::TagWriter& tag) const {
  const bool goesOn = !IsClosed() && !(SelfClosesWhenEmpty() && Children().empty());
  tag << (goesOn ? ">" : " />");
  tag.Flush();
  return goesOn;
}

void ZrXMLComplexElement::Write(std::ostream& stream) const {
  WritePrologue(stream);
  zr::TagWriter tag(stream);
  tag << '<' << name_.str();
  if (!EndStartTag(tag)) return;
  for (const ZrXMLComplexElement* child : Children()) child->Write(stream);
  tag << "</" << name_.str() << '>';
  tag.Flush();
}

ZrXMLComplexElement* ZrXMLComplexElement::AddChild(ZrXMLComplexElement* child) {
  if (child == nullptr) return child;
  if ((flags_ & kClosed) != 0) {
    throw ZrException("child elements not allowed for " + name_.str(), 631, "src");
  }
  MakeBody().children.PushBack(child);
  child->link_.parent = this;
  ChildAdded(child);
  return child;
}

void ZrXMLComplexElement::SetOnlyChild(ZrXMLComplexElement* child) {
  for (std::size_t i = 0; i < Children().size(); ++i) ChildRemoved(Children()[i]);
  if (body_ != nullptr) body_->children.DestroyAll();
  AddChild(child);
}

bool ZrXMLComplexElement::IsTextNode() const { return false; }

const std::string& ZrXMLComplexElement::Name() const { return name_.str(); }

void ZrXMLComplexElement::FindByName(std::string_view name, ZrXMLNodeList& list,
                                     std::size_t depth) {
  if (Name() == name) list.push_back(this);
  if (depth == 0) return;
  for (ZrXMLComplexElement* child : Children()) {
    if (child == nullptr) throw ZrException("Nullelement", 687, "src");
    child->FindByName(name, list, depth == kUnlimited ? depth : depth - 1);
  }
}

ZrXMLComplexElement* ZrXMLComplexElement::ContentChild(bool skipText, int index) {
  for (ZrXMLComplexElement* child : Children()) {
    if (child == nullptr) continue;
    const std::string& name = child->Name();
    if (name == "procinst" || name == "comment" || (skipText && name == "xmltext")) continue;
    if (index-- == 0) return child;
  }
  return nullptr;
}

ZrXMLComplexElement* ZrXMLComplexElement::FirstContentChild(bool skipText) {
  return ContentChild(skipText, 0);
}

ZrXMLComplexElement* ZrXMLComplexElement::SecondContentChild(bool skipText) {
  return ContentChild(skipText, 1);
}

ZrXMLComplexElement* ZrXMLComplexElement::ThirdContentChild(bool skipText) {
  return ContentChild(skipText, 2);
}

void ZrXMLComplexElement::CollectChildren(ZrXMLNodeList& list) {
  list.insert(list.end(), Children().begin(), Children().end());
}

bool ZrXMLComplexElement::ReplaceByAttribute(ZrXMLGenericElement*, ZrNameView, std::string_view) {
  return false;
}

bool ZrXMLComplexElement::WrapChild(ZrXMLComplexElement* child, ZrXMLComplexElement* wrapper) {
  if (Children().Find(child) == ZrChildList::kNotFound || wrapper == nullptr) return false;
  ChildRemoved(child);
  try {
    wrapper->AddChild(child);
  } catch (...) {
    // One owner only: a wrapper that refused the child after inserting it gives it back.
    const std::size_t inWrapper = wrapper->Children().Find(child);
    if (inWrapper != ZrChildList::kNotFound) wrapper->body_->children.Erase(inWrapper);
    child->link_.parent = this;
    throw;
  }
  const std::size_t place = Children().Find(child);
  if (place == ZrChildList::kNotFound) return false;  // a hook took it away
  body_->children.Put(place, wrapper);
  wrapper->link_.parent = this;
  child->link_.parent = wrapper;
  ChildAdded(wrapper);
  return true;
}

bool ZrXMLComplexElement::ReplaceChild(ZrXMLComplexElement* oldChild,
                                       ZrXMLComplexElement* newChild) {
  if (Children().Find(oldChild) == ZrChildList::kNotFound || newChild == nullptr) return false;
  ChildRemoved(oldChild);
  return ExchangeChild(oldChild, newChild);
}

bool ZrXMLComplexElement::ExchangeChild(const ZrXMLComplexElement* oldChild,
                                        ZrXMLComplexElement* newChild) {
  const std::size_t place = Children().Find(oldChild);
  if (place == ZrChildList::kNotFound) return false;
  const std::unique_ptr<const ZrXMLComplexElement> doomed(oldChild);
  body_->children.Put(place, newChild);
  newChild->link_.parent = this;
  ChildAdded(newChild);
  return true;
}

void ZrXMLComplexElement::DeleteChildren() {
  for (std::size_t i = 0; i < Children().size(); ++i) DestroyChildInPlace(i);
  if (body_ != nullptr) body_->children.DestroyAll();
}

void ZrXMLComplexElement::DestroyChildInPlace(std::size_t index) {
  ZrXMLComplexElement* const child = Children()[index];
  if (child == nullptr) return;
  ChildRemoved(child);
  body_->children.Put(index, nullptr);
  child->link_.parent = nullptr;
  delete child;
}

void ZrXMLComplexElement::Completed() {}

ZrXMLComplexElement* ZrXMLComplexElement::AddChildFront(ZrXMLComplexElement* child) {
  if (child == nullptr) return child;
  MakeBody().children.PushFront(child);
  child->link_.parent = this;
  ChildAdded(child);
  return child;
}

bool ZrXMLComplexElement::RemoveChild(ZrXMLComplexElement* child) {
  if (child == nullptr || Children().Find(child) == ZrChildList::kNotFound) return false;
  ChildRemoved(child);
  const std::size_t place = Children().Find(child);
  if (place == ZrChildList::kNotFound) return false;  // the hook took it away
  body_->children.Erase(place);
  child->link_.parent = nullptr;
  return true;
}

void ZrXMLComplexElement::SetError(const char* text) {
  flags_ |= kError;
  MakeBody().extras.SetErrorText(text);
}
