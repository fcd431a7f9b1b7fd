// Searching: by attribute, by name and by path.

#include <utility>

#include "base/exception.h"
#include "markup/generic_element.h"

void ZrXMLGenericElement::FindWithAttribute(ZrXMLElementList& list, std::string_view attrName) {
  if (HasAttribute(attrName)) list.push_back(this);
  for (ZrXMLComplexElement* child : Children())
    if (child->AsGeneric() != nullptr) child->AsGeneric()->FindWithAttribute(list, attrName);
}

void ZrXMLGenericElement::FindWithAttributeValue(std::string_view attrName,
                                                 std::string_view attrValue,
                                                 ZrXMLElementList& list) {
  if (AttributeEquals(attrName, attrValue)) list.push_back(this);
  for (ZrXMLComplexElement* child : Children())
    if (child->AsGeneric() != nullptr)
      child->AsGeneric()->FindWithAttributeValue(attrName, attrValue, list);
}

ZrXMLGenericElement* ZrXMLGenericElement::FirstWithAttributeValue(std::string_view attrName,
                                                                  std::string_view attrValue) {
  if (AttributeEquals(attrName, attrValue)) return this;
  for (ZrXMLComplexElement* child : Children()) {
    if (child->AsGeneric() == nullptr) continue;
    ZrXMLGenericElement* const found =
        child->AsGeneric()->FirstWithAttributeValue(attrName, attrValue);
    if (found != nullptr) return found;
  }
  return nullptr;
}

void ZrXMLGenericElement::FindElementsByName(std::string_view name, ZrXMLElementList& list,
                                             std::size_t depth) {
  ZrXMLNodeList nodes;
  FindByName(name, nodes, depth);
  for (ZrXMLComplexElement* node : nodes)
    if (node->AsGeneric() != nullptr) list.push_back(node->AsGeneric());
}

namespace {

// One step of a path: what an element must be, and whether another step follows it.
struct PathStep {
  std::string_view name;
  bool hasCondition = false;
  std::string attribute;
  std::string value;
  bool last = false;

  bool Holds(const ZrXMLGenericElement& element) const {
    if (!hasCondition) return true;
    return value.empty() ? element.HasAttribute(attribute)
                         : element.AttributeEquals(attribute, value);
  }
};

// Reads "attr=value]" from the front of path and takes it off, the character behind the bracket
// too.
void TakeCondition(std::string_view& path, PathStep& step) {
  std::string* text = &step.attribute;
  bool quoted = false;
  bool escaped = false;
  std::size_t i = 0;
  for (; i < path.size(); ++i) {
    const char c = path[i];
    if (c == ']' && !quoted && !escaped) break;
    if (c == '"' && !escaped) {
      quoted = !quoted;
    } else if (c == '\\' && !escaped) {
      escaped = quoted;  // outside quotes it is merely dropped
    } else if (c == '=') {
      if (!quoted) text = &step.value;
      escaped = false;
    } else {
      text->push_back(c);
      escaped = false;
    }
  }
  // i stands on the bracket or at the end, i + 1 on the separator, whatever that is.
  step.last = i + 1 >= path.size();
  path.remove_prefix(step.last ? path.size() : i + 2);
}

PathStep TakeStep(std::string_view& path) {
  PathStep step;
  const std::size_t end = path.find_first_of(".[");
  step.name = path.substr(0, end);
  if (end == std::string_view::npos) {
    step.last = true;
    path = {};
    return step;
  }
  step.hasCondition = path[end] == '[';
  path.remove_prefix(end + 1);
  if (step.hasCondition) TakeCondition(path, step);
  return step;
}

}  // namespace

std::unique_ptr<ZrXMLElementList> ZrXMLGenericElement::Query(std::string_view path) {
  // Step by step over the list of elements found so far. That gives the same elements in the same
  // order as asking each of them for the rest of the path, without a recursion as deep as the path
  // has steps.
  auto found = std::make_unique<ZrXMLElementList>(1, this);
  ZrXMLElementList next;
  ZrXMLNodeList named;
  for (bool last = false; !last;) {
    if (path.empty()) {
      found->clear();
      break;
    }
    const PathStep step = TakeStep(path);
    last = step.last;
    next.clear();
    if (step.hasCondition && step.attribute.empty()) found->clear();
    for (ZrXMLGenericElement* element : *found) {
      named.clear();
      element->FindByName(step.name, named, 1);
      for (ZrXMLComplexElement* node : named)
        if (node->AsGeneric() != nullptr && step.Holds(*node->AsGeneric()))
          next.push_back(node->AsGeneric());
      if (next.size() > kMaxQueryResults)
        throw ZrException("too many results for the path", 745, "src");
    }
    found->swap(next);
    if (found->empty()) break;
  }
  return found;
}
