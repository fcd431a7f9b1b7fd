#include "markup/complex_element.h"

#include <utility>

#include "base/exception.h"
#include "markup/write.h"

constinit const ZrElementBody::NeverDestroyed ZrElementBody::kNone;

ZrXMLComplexElement::~ZrXMLComplexElement() {
  // Deleted by someone else than its parent, which forgets it.
  if (ZrXMLComplexElement* const parent = Parent()) parent->Unlink(this);
  if ((flags_ & kTopOfStore) != 0 && FreeStore()) return;
  if (body_ == nullptr) return;
  if (ZrElementObserver* const observer = Observer()) observer->ElementGoesAway(*this);
  if ((flags_ & kOrphan) != 0)
    body_->children.MoveTo(*link_.graveyard);
  else
    body_->children.DestroyAll();
  delete body_;
}

// A top that lies outside of the store, as it was there before the parse, has a child in it: its
// first change comes here before anything changed.
zr::NodeStore& ZrXMLComplexElement::Store() const {
  return zr::NodeStore::Of((flags_ & kAsRead) != 0 ? this : Children().front());
}

void ZrXMLComplexElement::PartFromStore() noexcept {
  Store().Part();
  // The parse may come back to the node.
  if (!zr::NodePool::IsOpen()) flags_ &= ~(kAsRead | kTopOfStore);
}

// Nobody watches nodes that are as they were read: they go without being visited.
bool ZrXMLComplexElement::FreeStore() noexcept {
  zr::NodeStore& store = Store();
  if (!store.IsWhole()) return false;
  if (body_ != nullptr) {
    body_->children.Forget();
    delete std::exchange(body_, nullptr);
  }
  store.FreeAllBut((flags_ & kAsRead) != 0 ? this : nullptr);
  return true;
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

bool ZrXMLComplexElement::WriteStart(std::ostream& stream) const {
  WritePrologue(stream);
  zr::TagWriter tag(stream);
  tag << '<' << name_.str();
  return EndStartTag(tag);
}

void ZrXMLComplexElement::WriteEnd(std::ostream& stream, bool lineBreak) const {
  zr::TagWriter tag(stream);
  tag << (lineBreak ? "\n</" : "</") << Name() << '>';
  tag.Flush();
}

void ZrXMLComplexElement::Write(std::ostream& stream) const {
  const zr::WriteCall call(kMaxWriteDepth);
  if (!WriteStart(stream)) return;
  for (const ZrXMLComplexElement* child : Children()) child->Write(stream);
  WriteEnd(stream, false);
}

void ZrXMLComplexElement::RequireFreeSlow(const ZrXMLComplexElement& node) const {
  if (node.Parent() != nullptr) throw ZrException("the node has a parent", 640, "src");
  const ZrXMLComplexElement* above = this;
  while (above != &node && above->Parent() != nullptr) above = above->Parent();
  if (above == &node) throw ZrException("a node can't be put below itself", 641, "src");
}

ZrXMLComplexElement* ZrXMLComplexElement::AddChild(ZrXMLComplexElement* child) {
  if (child == nullptr) return child;
  if ((flags_ & kClosed) != 0)
    throw ZrException("child elements not allowed for " + name_.str(), 631, "src");
  RequireFree(*child);
  Link(nullptr, child);
  ChildAdded(child);
  return child;
}

void ZrXMLComplexElement::SetOnlyChild(ZrXMLComplexElement* child) {
  if (child != nullptr) RequireFree(*child);
  // A hook may change the list: then the first that was not told comes next.
  for (ZrXMLComplexElement* node = Children().front(); node != nullptr;) {
    node->flags_ |= kTold;
    const std::uint32_t stamp = Children().Stamp();
    ChildRemoved(node);
    node = Children().Stamp() == stamp ? node->next_ : Children().front();
    while (node != nullptr && (node->flags_ & kTold) != 0) node = node->next_;
  }
  if (body_ != nullptr) {
    BeginChange();
    body_->children.DestroyAll();
  }
  AddChild(child);
}

bool ZrXMLComplexElement::IsTextNode() const { return false; }

const std::string& ZrXMLComplexElement::Name() const { return name_.str(); }

void ZrXMLComplexElement::FindByName(std::string_view name, ZrXMLNodeList& list,
                                     std::size_t depth) {
  if (Name() == name) list.push_back(this);
  if (depth == 0) return;
  if (Children().HasClearedSlots()) throw ZrException("Nullelement", 687, "src");
  for (ZrXMLComplexElement* child : Children())
    child->FindByName(name, list, depth == kUnlimited ? depth : depth - 1);
}

ZrXMLComplexElement* ZrXMLComplexElement::ContentChild(bool skipText, int index) {
  for (ZrXMLComplexElement* child : Children()) {
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
  if (child == nullptr || child->Parent() != this || wrapper == nullptr) return false;
  RequireFree(*wrapper);
  std::uint32_t stamp = Children().Stamp();
  ChildRemoved(child);
  if (!StillHolds(child, stamp)) return false;
  RequireFree(*wrapper);
  // The wrapper keeps the place, but is no child before it has the child.
  ZrChildList& children = MakeBody().children;
  children.Exchange(child, wrapper);
  child->link_.parent = nullptr;
  stamp = children.Stamp();
  try {
    wrapper->AddChild(child);
  } catch (...) {
    // One owner only: a wrapper that refused the child after inserting it gives it back.
    if (child->Parent() == wrapper) wrapper->Unlink(child);
    if (StillHolds(wrapper, stamp)) {
      children.Exchange(wrapper, child);
      child->link_.parent = this;
    }
    throw;
  }
  if (!StillHolds(wrapper, stamp)) return false;  // a hook took it away
  wrapper->link_.parent = this;
  ChildAdded(wrapper);
  return true;
}

bool ZrXMLComplexElement::ReplaceChild(ZrXMLComplexElement* oldChild,
                                       ZrXMLComplexElement* newChild) {
  if (oldChild == nullptr || oldChild->Parent() != this || newChild == nullptr) return false;
  RequireFree(*newChild);
  const std::uint32_t stamp = Children().Stamp();
  ChildRemoved(oldChild);
  return ExchangeChild(oldChild, newChild, stamp);
}

bool ZrXMLComplexElement::ExchangeChild(ZrXMLComplexElement* oldChild,
                                        ZrXMLComplexElement* newChild, std::uint32_t stamp) {
  if (!StillHolds(oldChild, stamp)) return false;
  RequireFree(*newChild);
  MakeBody().children.Exchange(oldChild, newChild);
  oldChild->link_.parent = nullptr;
  newChild->SetFlag(kTold, false);
  newChild->link_.parent = this;
  const std::unique_ptr<const ZrXMLComplexElement> doomed(oldChild);
  ChildAdded(newChild);
  return true;
}

void ZrXMLComplexElement::DeleteChildren() {
  if (body_ == nullptr) return;
  ZrChildList& children = body_->children;
  struct Clearing {
    ~Clearing() {
      if (begun) list.CountCleared(false);
    }
    ZrChildList& list;
    bool begun = false;
  } clearing{children};
  while (ZrXMLComplexElement* const child = children.front()) {
    DestroyChild(child);
    if (!clearing.begun) children.CountCleared(true);
    clearing.begun = true;
  }
}

void ZrXMLComplexElement::DestroyChild(ZrXMLComplexElement* child) {
  const std::uint32_t stamp = Children().Stamp();
  ChildRemoved(child);
  if (!StillHolds(child, stamp)) return;
  Unlink(child);
  body_->children.CountCleared(true);
  delete child;
  body_->children.CountCleared(false);
}

void ZrXMLComplexElement::Completed() {}

ZrXMLComplexElement* ZrXMLComplexElement::AddChildFront(ZrXMLComplexElement* child) {
  if (child == nullptr) return child;
  RequireFree(*child);
  Link(Children().front(), child);
  ChildAdded(child);
  return child;
}

ZrXMLComplexElement* ZrXMLComplexElement::InsertChild(ZrXMLComplexElement* before,
                                                      ZrXMLComplexElement* child) {
  if (before == nullptr || child == nullptr) return AddChild(child);
  if (before->Parent() != this) throw ZrException("not a child", 642, "src");
  if ((flags_ & kClosed) != 0)
    throw ZrException("child elements not allowed for " + name_.str(), 631, "src");
  RequireFree(*child);
  Link(before, child);
  ChildAdded(child);
  return child;
}

bool ZrXMLComplexElement::RemoveChild(ZrXMLComplexElement* child) {
  if (child == nullptr || child->Parent() != this) return false;
  const std::uint32_t stamp = Children().Stamp();
  ChildRemoved(child);
  if (!StillHolds(child, stamp)) return false;  // the hook took it away
  Unlink(child);
  return true;
}

void ZrXMLComplexElement::SetError(const char* text) {
  flags_ |= kError;
  MakeBody().extras.SetErrorText(text);
}
