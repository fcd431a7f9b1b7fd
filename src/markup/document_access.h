#pragma once
// What stands behind the handles of velkoro/documents.h. Not for use outside the document facade.

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "markup/document_kinds.h"
#include "velkoro/documents.h"

namespace velkoro {

/// The node that holds what stands at the top of a document.
class [[gnu::visibility("hidden")]] TopNode : public ZrXMLGenericElement {
 public:
  explicit TopNode(DocumentKind kind) : ZrXMLGenericElement("nothing", false), kind_(kind) {}
  DocumentKind Kind() const { return kind_; }
  void Write(std::ostream & stream) const override;

 private:
  const DocumentKind kind_;
};

struct [[gnu::visibility("hidden")]] Document::Tree {
  std::unique_ptr<TopNode> top;
};

/// Between handles and nodes.
struct [[gnu::visibility("hidden")]] NodeAccess {
  using Base = ZrXMLComplexElement;
  using Owner = std::unique_ptr<ZrXMLComplexElement>;

  /// Throws for an empty handle.
  static Base& Get(const Node& node);
  static ZrXMLGenericElement& Get(const Element& element) {
    return *Get(static_cast<const Node&>(element)).AsGeneric();
  }
  static Node Handle(const Base* node) { return Node(Body(node)); }
  /// Empty for a node that is no element.
  static Element ElementHandle(const Base* node);
  /// Throws for an empty part.
  static Base& Get(const Part& part);
  /// The part's node is owned by another.
  static void Leave(Part & part) { part.body_ = nullptr; }
  static Part Give(Owner node) { return Part(Body(node.release())); }

  static NodeKind KindOf(const Base& node);
  static bool IsElement(const Base& node) { return KindOf(node) == NodeKind::kElement; }
  /// Null for one that stands in no document or part of one.
  static const TopNode* TopOf(const Base& node);
  /// Puts the part below the parent. Throws, the part then keeping its node.
  static Base* Insert(Base & parent, Base * before, Part && part);
  static Owner CopyOf(const Base& node);
  static std::vector<Element> Find(Base & from, std::string_view path, bool firstOnly);
  /// The first or, after another, the next node of a tree in document order; null at its end.
  static Base* NextInTree(const Base& node, const Base& top);

 private:
  static NodeBody* Body(const Base* node) {
    return reinterpret_cast<NodeBody*>(const_cast<Base*>(node));
  }
};

}  // namespace velkoro
