#pragma once
// The node model of every markup document: XML files, HTML pages and style sheets are one tree of
// these nodes, built by the parser (markup/parse.h) or by a program, searched and changed through
// the operations below and turned into text by Write(). Nothing is escaped or unescaped: names,
// texts and values are kept and written as they were given.
//
// Ownership. A node owns its children. An operation that inserts a node takes it over at the moment
// of insertion: when AddChild() throws, child->Parent() tells who owns it. It is null when the
// element was closed (the caller still owns the child) and this element when ChildAdded() refused
// it afterwards (the tree owns it). Adopt() does that for unique_ptr. Operations called Delete...
// or Replace... destroy what they remove; RemoveChild() hands it back. A node is in one place of
// one tree: whatever inserts a node throws ZrException "the node has a parent" for one that stands
// in a tree (also twice in the same, or in its own place) and "a node can't be put below itself"
// for the element itself or one above it; then nothing has changed.
//
// A tree may have any depth when it is built and destroyed, and when it is written, as long as it
// is of plain elements; the other operations recurse along the tree and are made for depths up to
// 1,000. Nothing locks: a tree belongs to one thread at a time.

#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "markup/child_list.h"
#include "markup/element_body.h"
#include "markup/element_observer.h"
#include "markup/name.h"
#include "markup/node_memory.h"

class ZrXMLComplexElement;
class ZrXMLGenericElement;
namespace zr {
class PlainReader;
class TagWriter;
}  // namespace zr

/// Results of a search, in document order. The pointers do not own: each is good until its node is
/// destroyed or its tree goes away.
using ZrXMLNodeList = std::vector<ZrXMLComplexElement*>;

/// Named node with ordered children.
class ZrXMLComplexElement : public ZrInNodeMemory {
 public:
  /// Depth of a search without limit.
  static constexpr std::size_t kUnlimited = std::numeric_limits<std::size_t>::max();
  /// How many calls of Write() may stand in each other.
  static constexpr unsigned kMaxWriteDepth = 10'000;

  /// closed: never has children and is always written as an empty-element tag.
  /// selfClosesWhenEmpty: written as an empty-element tag while it has no children; implied by
  /// closed.
  ZrXMLComplexElement(ZrNameView name, bool closed, bool selfClosesWhenEmpty)
      : name_(name),
        flags_((closed ? kClosed : 0u) | (selfClosesWhenEmpty || closed ? kSelfCloses : 0u)) {}
  ZrXMLComplexElement(const ZrXMLComplexElement&) = delete;
  ZrXMLComplexElement& operator=(const ZrXMLComplexElement&) = delete;

  // The virtual operations, in slot order.
  /// Hook that Write() calls first; writes nothing.
  virtual void WritePrologue(std::ostream& stream) const;
  /// Hook called after a child was inserted. May throw to refuse it: the child stays in the tree.
  virtual void ChildAdded(ZrXMLComplexElement* child);
  /// Hook called before a child is taken out.
  virtual void ChildRemoved(ZrXMLComplexElement* child);
  /// Tells the observer, then destroys the children in order, without recursion. A node that is
  /// destroyed with its parent sees Parent() as null.
  virtual ~ZrXMLComplexElement();
  /// Whether Write() of the parent puts line breaks around this node.
  virtual bool OwnLine() const;
  /// Replaces the value when newValue is not empty; returns the value. The parser keeps the outer
  /// document kind here while an element is open: a node whose content is of another kind stores
  /// newValue and answers the name of that kind.
  virtual std::string Value(ZrNameView newValue);
  /// Writes the text content: that of every child in order. Text nodes of HTML write their text.
  virtual void WriteText(std::ostream& stream) const;
  virtual bool IsClosed() const;
  virtual void SetClosed(bool closed);
  virtual bool SelfClosesWhenEmpty() const;
  virtual void SetSelfClosesWhenEmpty(bool selfCloses);
  /// Writes the node and everything below it. This class writes no attributes and no line breaks.
  /// Throws ZrException "elements nested too deeply to be written" beyond kMaxWriteDepth elements
  /// of classes that are no plain XML elements.
  virtual void Write(std::ostream& stream) const;
  /// Appends the child and takes it over; null is returned unchanged and nothing happens. Throws
  /// ZrException "child elements not allowed for NAME" when closed, before it inserts; passes on
  /// what ChildAdded() throws, after it inserted. Returns the child.
  virtual ZrXMLComplexElement* AddChild(ZrXMLComplexElement* child);
  /// Destroys all children and adds this one, as AddChild() does. Null adds none.
  virtual void SetOnlyChild(ZrXMLComplexElement* child);
  virtual bool IsTextNode() const;
  virtual const std::string& Name() const;
  /// Appends every node of that name among this one and those up to depth levels below, in document
  /// order: 0 looks at this node alone, 1 at its children too. Throws ZrException "Nullelement"
  /// where children are just being deleted (searching from a ChildRemoved hook).
  virtual void FindByName(std::string_view name, ZrXMLNodeList& list, std::size_t depth);
  /// The first, second and third child that is no "procinst" or "comment" and, with skipText, no
  /// "xmltext"; null if there is none.
  virtual ZrXMLComplexElement* FirstContentChild(bool skipText);
  virtual ZrXMLComplexElement* SecondContentChild(bool skipText);
  virtual ZrXMLComplexElement* ThirdContentChild(bool skipText);
  /// Appends all children in order.
  virtual void CollectChildren(ZrXMLNodeList& list);
  /// See ZrXMLGenericElement; answers no here.
  virtual bool ReplaceByAttribute(ZrXMLGenericElement* newElement, ZrNameView attrName,
                                  std::string_view attrValue);
  /// Puts wrapper in the place of the child and the child below it; takes wrapper over. No, and
  /// nothing happens, when child is none. When wrapper refuses the child the exception passes, the
  /// child keeps its place and wrapper stays the caller's.
  virtual bool WrapChild(ZrXMLComplexElement* child, ZrXMLComplexElement* wrapper);
  /// Puts newChild in the place of oldChild, takes it over and destroys oldChild. No, and
  /// nothing happens, when oldChild is no child or newChild is null.
  virtual bool ReplaceChild(ZrXMLComplexElement* oldChild, ZrXMLComplexElement* newChild);
  /// Destroys the children one by one, each after ChildRemoved().
  virtual void DeleteChildren();
  /// Hook that the parser calls when the node is complete.
  virtual void Completed();

  // The other operations.
  /// Appends a node that a smart pointer owns. When AddChild() throws before it inserted, the child
  /// is destroyed with the argument; nothing leaks and nothing is freed twice. Returns the child.
  template <class Node>
  Node* Adopt(std::unique_ptr<Node> child) {
    Node* const node = child.get();
    try {
      AddChild(node);
    } catch (...) {
      if (node->Parent() == this) (void)child.release();
      throw;
    }
    (void)child.release();
    return node;
  }
  /// Inserts the child in front and takes it over, whether the element is closed or not; null is
  /// returned unchanged. Passes on what ChildAdded() throws, after it inserted.
  ZrXMLComplexElement* AddChildFront(ZrXMLComplexElement* child);
  /// Inserts the child in front of another one, the end for null, and takes it over, as AddChild()
  /// does. Throws ZrException "not a child" when `before` is none.
  ZrXMLComplexElement* InsertChild(ZrXMLComplexElement* before, ZrXMLComplexElement* child);
  /// Takes the child out without destroying it: the caller owns it again and its parent is null.
  /// No: it is no child.
  bool RemoveChild(ZrXMLComplexElement* child);

  /// The element that holds this one, null for a root.
  ZrXMLComplexElement* Parent() const { return (flags_ & kOrphan) != 0 ? nullptr : link_.parent; }
  /// The nodes beside this one; null at the ends and for a root.
  ZrXMLComplexElement* NextSibling() const { return Parent() != nullptr ? next_ : nullptr; }
  ZrXMLComplexElement* PreviousSibling() const { return Parent() != nullptr ? previous_ : nullptr; }
  /// For the parser: the node was made in the course of its parse, by a class that keeps nothing
  /// outside of node memory but names; and the node is the top of a tree that is all there is in
  /// the store of the parse.
  void MarkAsRead() { SetFlag(kAsRead, true); }
  void MarkTopOfStore() { SetFlag(kTopOfStore, true); }
  /// This node as an element with attributes, null when it is of another class; costs nothing.
  inline ZrXMLGenericElement* AsGeneric();
  inline const ZrXMLGenericElement* AsGeneric() const;
  /// The children, without one that is just being destroyed.
  const ZrChildList& Children() const {
    return body_ != nullptr ? body_->children : ZrElementBody::None().children;
  }
  /// Set, with its text, when an attribute could not be assigned from text.
  bool ErrorFlag() const { return (flags_ & kError) != 0; }
  const std::string& ErrorText() const { return Extras().errorText(); }
  /// Not owned; null for none.
  ZrElementObserver* Observer() const { return Extras().observer(); }
  void SetObserver(ZrElementObserver* observer) {
    if (observer != nullptr || body_ != nullptr) MakeBody().extras.SetObserver(observer);
  }

 protected:
  void SetName(ZrNameView name) {
    BeginChange();
    name_ = ZrName(name);
  }
  /// What the parser makes by itself: a node in the store of the parse, of a class that keeps
  /// nothing outside of it.
  struct AsRead {
    zr::NameText& name;  // not counted
    bool ownLine = false;
  };
  explicit ZrXMLComplexElement(const AsRead& read) noexcept
      : name_(read.name, ZrName::Uncounted()),
        flags_(kSelfCloses | kGeneric | kAsRead | (read.ownLine ? kOwnLine : 0u)) {}

  void SetOwnLine(bool ownLine) { SetFlag(kOwnLine, ownLine); }
  void SetError(const char* text);
  /// Writes what stands behind the last child.
  void WriteEnd(std::ostream& stream, bool lineBreak) const;
  /// Writes the end of the start tag. No: that is all of the element, it has no end tag.
  bool EndStartTag(zr::TagWriter& tag) const;
  void MarkGeneric() { SetFlag(kGeneric, true); }
  /// The stored value, as Value("") of this class answers it.
  const std::string& StoredValue() const { return Extras().value(); }
  /// Throws when the node may not be put below this element, see the head of this file.
  void RequireFree(const ZrXMLComplexElement& node) const {
    // Only what has children can be above this element.
    if (node.link_.parent != nullptr || &node == this || !node.Children().empty()) [[unlikely]]
      RequireFreeSlow(node);
  }
  /// Puts newChild in the place of oldChild, calls ChildAdded() for it and destroys oldChild, also
  /// when ChildAdded() throws. ChildRemoved() was called at the stamp of the list; answers
  /// no, and nothing happens, when that took oldChild away.
  bool ExchangeChild(ZrXMLComplexElement* oldChild, ZrXMLComplexElement* newChild,
                     std::uint32_t stamp);
  /// Destroys the child in the way of the Delete operations: hook, slot cleared, child destroyed.
  void DestroyChild(ZrXMLComplexElement* child);
  /// Whatever makes, frees or hands on what belongs to this node calls this first.
  void BeginChange() {
    if ((flags_ & (kAsRead | kTopOfStore)) != 0) [[unlikely]]
      PartFromStore();
  }
  /// For ZrXMLGenericElement; null while no attribute was ever entered.
  ZrAttributeMap* Attributes() const { return body_ != nullptr ? &body_->attributes : nullptr; }
  ZrAttributeMap& MakeAttributes() { return MakeBody().attributes; }
  /// Whether typed members stand beside the map, see ZrXMLGenericElement::ApartMembers().
  bool MembersApart() const { return (flags_ & kMembersApart) != 0; }
  void SetMembersApart(bool apart) { SetFlag(kMembersApart, apart); }

 private:
  friend class ZrChildList;
  friend class ZrChildList::Iterator;
  friend class zr::PlainReader;

  enum : unsigned {
    kClosed = 1,
    kSelfCloses = 2,
    kOwnLine = 4,
    kError = 8,
    kGeneric = 16,
    kOrphan = 32,  // is being destroyed by an element further up, link_ names its graveyard
    kMembersApart = 64,
    kTold = 128,        // SetOnlyChild() called ChildRemoved()
    kAsRead = 256,      // lies in the store of a parse, and keeps nothing outside of it
    kTopOfStore = 512,  // a store holds what is below this node, and perhaps the node, only
  };
  const ZrElementExtras& Extras() const {
    return body_ != nullptr ? body_->extras : ZrElementBody::None().extras;
  }
  ZrElementBody& MakeBody() {
    BeginChange();
    if (body_ == nullptr) body_ = new ZrElementBody;
    return *body_;
  }
  // Whether the child is still there after a hook that was called at the stamp.
  bool StillHolds(const ZrXMLComplexElement* child, std::uint32_t stamp) const {
    return Children().Stamp() == stamp || Children().Holds(child);
  }
  void Link(ZrXMLComplexElement* before, ZrXMLComplexElement* child) {
    MakeBody().children.Insert(before, child);
    child->SetFlag(kTold, false);
    child->link_.parent = this;
  }
  void Unlink(ZrXMLComplexElement* child) {
    BeginChange();
    body_->children.Erase(child);
    child->link_.parent = nullptr;
  }
  bool WriteStart(std::ostream& stream) const;
  zr::NodeStore& Store() const;
  [[gnu::cold]] void PartFromStore() noexcept;
  bool FreeStore() noexcept;
  [[gnu::cold]] void RequireFreeSlow(const ZrXMLComplexElement& node) const;
  void SetFlag(unsigned flag, bool on) { flags_ = on ? flags_ | flag : flags_ & ~flag; }
  ZrXMLComplexElement* ContentChild(bool skipText, int index);

  ZrName name_;
  union {
    ZrXMLComplexElement* parent;
    ZrChildList::Graveyard* graveyard;
  } link_{nullptr};
  ZrXMLComplexElement* next_ = nullptr;  // among the parent's children
  ZrXMLComplexElement* previous_ = nullptr;
  ZrElementBody* body_ = nullptr;
  unsigned flags_;
};

#include "markup/child_list_steps.h"
