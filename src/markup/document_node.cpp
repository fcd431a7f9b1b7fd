// Node, Element and Part of velkoro/documents.h.

#include <sstream>
#include <typeinfo>

#include "base/exception.h"
#include "markup/document_access.h"
#include "markup/document_text.h"
#include "markup/write.h"

namespace velkoro {

namespace {

[[noreturn]] void Refuse(const std::string& what) { throw DocumentError(what, 0); }

void RequireName(std::string_view name) {
  if (!zr::IsDocumentName(name)) Refuse("'" + std::string(name) + "' is no name");
}

// Elements of pages are written with their end tag also when they are empty.
bool IsOfPage(const ZrXMLComplexElement& element) { return !element.SelfClosesWhenEmpty(); }

bool IsCode(const ZrXMLComplexElement* element) {
  const auto* const raw = dynamic_cast<const zr::RawElement*>(element);
  return raw != nullptr && raw->IsCode();
}

bool IsBlank(const ZrXMLComplexElement& node) {
  const auto* const carrier = dynamic_cast<const ZrXMLTextCarrier*>(&node);
  return carrier != nullptr &&
         carrier->text().find_first_not_of(" \t\r\n") == std::string_view::npos;
}

void AppendText(std::string& text, const ZrXMLComplexElement& node) {
  const auto* const carrier = dynamic_cast<const ZrXMLTextCarrier*>(&node);
  if (carrier == nullptr) return;
  if (dynamic_cast<const zr::CdataNode*>(&node) != nullptr || IsCode(node.Parent()))
    text += carrier->text();
  else
    text += Unescape(carrier->text());
}

}  // namespace

ZrXMLComplexElement& NodeAccess::Get(const Node& node) {
  if (!node) Refuse("the handle is empty: there is no such node");
  return *reinterpret_cast<Base*>(node.body_);
}

Element NodeAccess::ElementHandle(const Base* node) {
  return node != nullptr && IsElement(*node) ? Element(Body(node)) : Element();
}

ZrXMLComplexElement& NodeAccess::Get(const Part& part) {
  if (!part) Refuse("the part is empty: its node was put somewhere already");
  return *reinterpret_cast<Base*>(part.body_);
}

NodeKind NodeAccess::KindOf(const Base& node) {
  if (typeid(node) == typeid(ZrXMLGenericElement)) return NodeKind::kElement;
  if (dynamic_cast<const ZrXML_Comment2*>(&node) != nullptr) return NodeKind::kComment;
  if (dynamic_cast<const ZrXML_ProcInst2*>(&node) != nullptr) return NodeKind::kInstruction;
  if (dynamic_cast<const zr::DoctypeNode*>(&node) != nullptr) return NodeKind::kDoctype;
  return dynamic_cast<const ZrXMLTextCarrier*>(&node) != nullptr ? NodeKind::kText
                                                                 : NodeKind::kElement;
}

const TopNode* NodeAccess::TopOf(const Base& node) {
  const Base* above = &node;
  while (above->Parent() != nullptr) above = above->Parent();
  return dynamic_cast<const TopNode*>(above);
}

ZrXMLComplexElement* NodeAccess::NextInTree(const Base& node, const Base& top) {
  if (Base* const child = node.Children().front()) return child;
  const Base* at = &node;
  while (at != &top && at->NextSibling() == nullptr) at = at->Parent();
  return at != &top ? at->NextSibling() : nullptr;
}

ZrXMLComplexElement* NodeAccess::Insert(Base& parent, Base* before, Part&& part) {
  Base* const node = &Get(part);
  if (parent.IsClosed()) Refuse("the element '" + parent.Name() + "' takes no content");
  const auto* const top = dynamic_cast<const TopNode*>(&parent);
  if (IsElement(*node)) {
    const bool page = top != nullptr ? top->Kind() == DocumentKind::kHtml : IsOfPage(parent);
    if (page != IsOfPage(*node)) {
      Refuse("the element '" + node->Name() + "' is one of " + (page ? "XML" : "a page") +
             " and would be written wrongly in " + (page ? "a page" : "XML"));
    }
  }
  if (top != nullptr && top->Kind() == DocumentKind::kXml) {
    if (KindOf(*node) == NodeKind::kText && !IsBlank(*node))
      Refuse("a text can't stand beside the root");
    for (const Base* child : parent.Children())
      if (IsElement(*node) && IsElement(*child)) Refuse("a document has one root");
  }
  try {
    parent.InsertChild(before, node);
  } catch (const ZrException& failure) {
    Refuse(failure.what());  // it would stand below itself
  }
  part.body_ = nullptr;
  return node;
}

NodeAccess::Owner NodeAccess::CopyOf(const Base& node) {
  const auto copied = [](const Base& from) -> Owner {
    if (const auto* const carrier = dynamic_cast<const ZrXMLTextCarrier*>(&from)) {
      const std::string_view text = carrier->text();
      switch (KindOf(from)) {
        case NodeKind::kComment:
          return std::make_unique<ZrXML_Comment2>(text);
        case NodeKind::kInstruction:
          return std::make_unique<ZrXML_ProcInst2>(text);
        case NodeKind::kDoctype:
          return std::make_unique<zr::DoctypeNode>(text);
        default:
          break;
      }
      if (dynamic_cast<const zr::CdataNode*>(&from) != nullptr)
        return std::make_unique<zr::CdataNode>(text);
      return std::make_unique<ZrXMLGenericText>(text);
    }
    auto element = zr::MakeFacadeElement(from.Name(), IsOfPage(from));
    from.AsGeneric()->ForEachAttribute([&](const std::string& name, const ZrXMLComplexAttribute2*) {
      element->SetAttribute(name, from.AsGeneric()->AttributeValue(name, {}));
    });
    return element;
  };
  Owner copy = copied(node);
  Base* to = copy.get();  // of `at`
  for (const Base* at = &node;;) {
    if (const Base* const child = at->Children().front()) {
      to = to->Adopt(copied(*child));
      at = child;
      continue;
    }
    while (at != &node && at->NextSibling() == nullptr) {
      at = at->Parent();
      to = to->Parent();
    }
    if (at == &node) return copy;
    at = at->NextSibling();
    to = to->Parent()->Adopt(copied(*at));
  }
}

NodeKind Node::Kind() const { return NodeAccess::KindOf(NodeAccess::Get(*this)); }

Element Node::AsElement() const { return NodeAccess::ElementHandle(&NodeAccess::Get(*this)); }

Element Node::Parent() const {
  const ZrXMLComplexElement* const parent = NodeAccess::Get(*this).Parent();
  return dynamic_cast<const TopNode*>(parent) != nullptr ? Element()
                                                         : NodeAccess::ElementHandle(parent);
}

Node Node::Next() const { return NodeAccess::Handle(NodeAccess::Get(*this).NextSibling()); }

Node Node::Previous() const { return NodeAccess::Handle(NodeAccess::Get(*this).PreviousSibling()); }

std::string Node::Text() const {
  const ZrXMLComplexElement& node = NodeAccess::Get(*this);
  if (Kind() != NodeKind::kElement && Kind() != NodeKind::kText)
    return std::string(static_cast<const ZrXMLTextCarrier&>(node).text());
  std::string text;
  for (const ZrXMLComplexElement* at = &node; at != nullptr; at = NodeAccess::NextInTree(*at, node))
    if (NodeAccess::KindOf(*at) == NodeKind::kText) AppendText(text, *at);
  return text;
}

std::string Node::Markup() const {
  std::ostringstream markup;
  NodeAccess::Get(*this).Write(markup);
  return std::move(markup).str();
}

Part Node::Copy() const { return NodeAccess::Give(NodeAccess::CopyOf(NodeAccess::Get(*this))); }

Part Node::Remove() {
  ZrXMLComplexElement& node = NodeAccess::Get(*this);
  if (node.Parent() == nullptr) Refuse("the node stands in nothing that it could be taken from");
  node.Parent()->RemoveChild(&node);
  return NodeAccess::Give(NodeAccess::Owner(&node));
}

Part Node::Replace(Part&& part) {
  ZrXMLComplexElement& node = NodeAccess::Get(*this);
  ZrXMLComplexElement* const parent = node.Parent();
  if (parent == nullptr) Refuse("the node stands in nothing that it could be taken from");
  // Out first: a root may be replaced by another one.
  ZrXMLComplexElement* const next = node.NextSibling();
  Part old = Remove();
  try {
    NodeAccess::Insert(*parent, next, std::move(part));
  } catch (...) {
    parent->InsertChild(next, &node);
    NodeAccess::Leave(old);
    throw;
  }
  return old;
}

Node Node::InsertBefore(Part&& part) {
  ZrXMLComplexElement& node = NodeAccess::Get(*this);
  if (node.Parent() == nullptr) Refuse("nothing can be put beside the top of a part");
  return NodeAccess::Handle(NodeAccess::Insert(*node.Parent(), &node, std::move(part)));
}

Node Node::InsertAfter(Part&& part) {
  ZrXMLComplexElement& node = NodeAccess::Get(*this);
  if (node.Parent() == nullptr) Refuse("nothing can be put beside the top of a part");
  return NodeAccess::Handle(
      NodeAccess::Insert(*node.Parent(), node.NextSibling(), std::move(part)));
}

const std::string& Element::Name() const { return NodeAccess::Get(*this).Name(); }

std::optional<std::string> Element::Attribute(std::string_view name) const {
  const ZrXMLGenericElement& element = NodeAccess::Get(*this);
  if (!element.HasAttribute(name)) return std::nullopt;
  return Unescape(element.AttributeValue(name, {}));
}

std::string Element::Attribute(std::string_view name, std::string_view whenAbsent) const {
  std::optional<std::string> value = Attribute(name);
  return value ? std::move(*value) : std::string(whenAbsent);
}

void Element::Set(std::string_view name, std::string_view value) {
  ZrXMLGenericElement& element = NodeAccess::Get(*this);
  RequireName(name);
  element.SetAttribute(name, Escape(value));
}

bool Element::Unset(std::string_view name) { return NodeAccess::Get(*this).RemoveAttribute(name); }

std::vector<std::pair<std::string, std::string>> Element::Attributes() const {
  std::vector<std::pair<std::string, std::string>> all;
  const ZrXMLGenericElement& element = NodeAccess::Get(*this);
  element.ForEachAttribute([&](const std::string& name, const ZrXMLComplexAttribute2*) {
    all.emplace_back(name, Unescape(element.AttributeValue(name, {})));
  });
  return all;
}

Element Element::First(std::string_view name) const {
  for (const ZrXMLComplexElement* child : NodeAccess::Get(*this).Children())
    if (NodeAccess::IsElement(*child) && (name.empty() || child->Name() == name))
      return NodeAccess::ElementHandle(child);
  return {};
}

std::vector<Element> Element::Children(std::string_view name) const {
  std::vector<Element> children;
  for (const ZrXMLComplexElement* child : NodeAccess::Get(*this).Children())
    if (NodeAccess::IsElement(*child) && (name.empty() || child->Name() == name))
      children.push_back(NodeAccess::ElementHandle(child));
  return children;
}

std::vector<Node> Element::Nodes() const {
  std::vector<Node> nodes;
  for (const ZrXMLComplexElement* child : NodeAccess::Get(*this).Children())
    nodes.push_back(NodeAccess::Handle(child));
  return nodes;
}

std::vector<Element> Element::Query(std::string_view path) const {
  return NodeAccess::Find(NodeAccess::Get(*this), path, false);
}

Element Element::QueryFirst(std::string_view path) const {
  const std::vector<Element> found = NodeAccess::Find(NodeAccess::Get(*this), path, true);
  return found.empty() ? Element() : found.front();
}

Element Element::Add(std::string_view name) {
  const bool page = IsOfPage(NodeAccess::Get(*this));
  return Add(Part::Element(name, page ? DocumentKind::kHtml : DocumentKind::kXml)).AsElement();
}

Node Element::AddText(std::string_view text) {
  ZrXMLGenericElement& element = NodeAccess::Get(*this);
  if (!IsCode(&element)) return Add(Part::Text(text));
  // Nothing is resolved in scripts and styles, so nothing may end them.
  for (std::size_t at = 0; (at = text.find("</", at)) != std::string_view::npos; at += 2)
    if (zr::EqualsLower(text.substr(at + 2, element.Name().size()), element.Name()))
      Refuse("the text would end the element '" + element.Name() + "'");
  return Add(NodeAccess::Give(std::make_unique<ZrXMLGenericText>(text)));
}

Node Element::Add(Part&& part) {
  return NodeAccess::Handle(NodeAccess::Insert(NodeAccess::Get(*this), nullptr, std::move(part)));
}

void Element::Clear() { NodeAccess::Get(*this).DeleteChildren(); }

void Element::SetText(std::string_view text) {
  ZrXMLGenericElement& element = NodeAccess::Get(*this);
  // The new text first: what fails changes nothing.
  AddText(text);
  while (element.Children().size() > 1) {
    const NodeAccess::Owner old(element.Children().front());
    element.RemoveChild(old.get());
  }
}

Part::~Part() { delete reinterpret_cast<ZrXMLComplexElement*>(body_); }

Part Part::Element(std::string_view name, DocumentKind kind) {
  RequireName(name);
  return NodeAccess::Give(zr::MakeFacadeElement(name, kind == DocumentKind::kHtml));
}

Part Part::Text(std::string_view text) {
  return NodeAccess::Give(std::make_unique<ZrXMLGenericText>(Escape(text)));
}

Part Part::Comment(std::string_view text) {
  if (text.find("--") != std::string_view::npos || text.ends_with('-'))
    Refuse("a comment can't hold \"--\" or end in \"-\"");
  // There a page would end it.
  if (text.starts_with('>') || text.starts_with("->"))
    Refuse("a comment can't begin with \">\" or \"->\"");
  return NodeAccess::Give(std::make_unique<ZrXML_Comment2>(text));
}

Part Part::Instruction(std::string_view text) {
  if (text.find("?>") != std::string_view::npos) Refuse("an instruction can't hold \"?>\"");
  return NodeAccess::Give(std::make_unique<ZrXML_ProcInst2>(text));
}

Part Part::Markup(std::string_view markup, DocumentKind kind) {
  Document document = Document::ReadText(markup, kind, "markup");
  velkoro::Element root = document.Root();
  if (!root) Refuse("the markup holds no element");
  if (document.Nodes().size() != 1) Refuse("the markup holds more than one element");
  return root.Remove();
}

Node Part::Get() const {
  if (body_ == nullptr) Refuse("the part is empty: its node was put somewhere already");
  return NodeAccess::Handle(reinterpret_cast<const ZrXMLComplexElement*>(body_));
}

velkoro::Element Part::GetElement() const { return Get().AsElement(); }

}  // namespace velkoro
