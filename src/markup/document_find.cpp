// Searching by path, and laying a document out anew.
//
// A path is a small automaton: at each element a set of bits says which of its steps may match a
// child. One walk in document order carries these sets down, so that each element is found once and
// in order whatever the path, at the cost of the elements it looks at times its steps.

#include <algorithm>

#include "markup/document_access.h"
#include "markup/document_text.h"

namespace velkoro {

namespace {

constexpr std::size_t kMaxSteps = 60;

struct Condition {
  std::string_view attribute;
  std::optional<std::string> value;
};

struct Step {
  std::string_view name;  // "*" for any
  bool anyDepth = false;
  std::vector<Condition> conditions;

  bool Matches(const ZrXMLComplexElement& node) const {
    if (!NodeAccess::IsElement(node) || (name != "*" && node.Name() != name)) return false;
    const ZrXMLGenericElement& element = *node.AsGeneric();
    return std::all_of(conditions.begin(), conditions.end(), [&](const Condition& c) {
      return element.HasAttribute(c.attribute) &&
             (!c.value || Unescape(element.AttributeValue(c.attribute, {})) == *c.value);
    });
  }
};

class PathReader {
 public:
  explicit PathReader(std::string_view path) : path_(path), rest_(path) {}

  std::vector<Step> Read() {
    std::vector<Step> steps;
    do {
      Step& step = steps.emplace_back();
      if (steps.size() > 1 || rest_.starts_with("//")) step.anyDepth = Take('/');
      if (steps.size() == 1 && step.anyDepth) Take('/');
      step.name = rest_.substr(0, std::min(rest_.find_first_of("/[]"), rest_.size()));
      if (step.name != "*" && !zr::IsDocumentName(step.name)) Refuse();
      rest_.remove_prefix(step.name.size());
      while (Take('[')) step.conditions.push_back(ReadCondition());
      if (steps.size() > kMaxSteps) Refuse();
    } while (Take('/'));
    if (!rest_.empty()) Refuse();
    return steps;
  }

 private:
  [[noreturn]] void Refuse() const {
    throw DocumentError("the path '" + std::string(path_) + "' can't be read", 0);
  }
  bool Take(char c) {
    if (!rest_.starts_with(c)) return false;
    rest_.remove_prefix(1);
    return true;
  }
  Condition ReadCondition() {
    Condition condition;
    condition.attribute = rest_.substr(0, std::min(rest_.find_first_of("=]"), rest_.size()));
    if (!zr::IsDocumentName(condition.attribute)) Refuse();
    rest_.remove_prefix(condition.attribute.size());
    if (Take('=')) {
      const bool quoted = rest_.starts_with('"') || rest_.starts_with('\'');
      const char end = quoted ? rest_.front() : ']';
      if (quoted) rest_.remove_prefix(1);
      const std::size_t size = rest_.find(end);
      if (size == std::string_view::npos) Refuse();
      condition.value = std::string(rest_.substr(0, size));
      rest_.remove_prefix(size + (quoted ? 1 : 0));
    }
    if (!Take(']')) Refuse();
    return condition;
  }

  const std::string_view path_;
  std::string_view rest_;
};

bool HoldsText(const ZrXMLComplexElement& element) {
  return std::any_of(
      element.Children().begin(), element.Children().end(),
      [](const ZrXMLComplexElement* child) {
        return NodeAccess::KindOf(*child) == NodeKind::kText &&
               static_cast<const ZrXMLTextCarrier*>(child)->text().find_first_not_of(" \t\r\n") !=
                   std::string_view::npos;
      });
}

// Whether the children of the element may be put on lines of their own.
bool MayBreak(const ZrXMLComplexElement& element) {
  return dynamic_cast<const zr::RawElement*>(&element) == nullptr && element.Name() != "pre" &&
         !HoldsText(element);
}

}  // namespace

std::vector<Element> NodeAccess::Find(Base& from, std::string_view path, bool firstOnly) {
  const std::vector<Step> steps = PathReader(path).Read();
  const std::uint64_t foundBit = std::uint64_t{1} << steps.size();
  std::vector<Element> found;
  std::vector<std::uint64_t> waiting{1};  // for each open element the steps for its children
  const Base* open = &from;
  const Base* child = from.Children().front();
  for (;;) {
    while (child == nullptr) {
      if (open == &from) return found;
      child = open->NextSibling();
      open = open->Parent();
      waiting.pop_back();
    }
    std::uint64_t next = 0;
    for (std::size_t i = 0; i < steps.size(); ++i) {
      const std::uint64_t bit = std::uint64_t{1} << i;
      if ((waiting.back() & bit) == 0) continue;
      if (steps[i].anyDepth) next |= bit;
      if (steps[i].Matches(*child)) next |= bit << 1;
    }
    if ((next & foundBit) != 0) {
      found.push_back(ElementHandle(child));
      if (firstOnly) return found;
    }
    next &= ~foundBit;
    if (next != 0 && !child->Children().empty()) {
      waiting.push_back(next);
      open = child;
      child = child->Children().front();
    } else {
      child = child->NextSibling();
    }
  }
}

void Document::Indent(unsigned blanks) {
  using Base = ZrXMLComplexElement;
  TopNode& top = *Held().top;
  const auto line = [](Base& parent, Base* before, std::size_t depth) {
    parent.InsertChild(
        before, std::make_unique<ZrXMLGenericWhitespace>("\n" + std::string(depth, ' ')).release());
  };
  std::size_t depth = 0;
  for (Base* open = &top; open != nullptr;) {
    // Going down: the children of this element get their lines.
    if (!open->Children().empty() && MayBreak(*open)) {
      Base* next = nullptr;
      for (Base* child = open->Children().front(); child != nullptr; child = next) {
        next = child->NextSibling();
        if (NodeAccess::KindOf(*child) == NodeKind::kText) {
          const NodeAccess::Owner blank(child);
          open->RemoveChild(child);
        } else if (open != &top || child->PreviousSibling() != nullptr) {
          line(*open, child, depth);
        }
      }
      if (!open->Children().empty()) line(*open, nullptr, open == &top ? 0 : depth - blanks);
    }
    Base* child = open->Children().front();
    const bool broken = MayBreak(*open);
    while (child != nullptr && (!broken || child->Children().empty())) child = child->NextSibling();
    if (child != nullptr) {
      depth += blanks;
      open = child;
      continue;
    }
    while (open != &top) {
      Base* next = open->NextSibling();
      while (next != nullptr && next->Children().empty()) next = next->NextSibling();
      if (next != nullptr) {
        open = next;
        break;
      }
      open = open->Parent();
      depth -= blanks;
    }
    if (open == &top) return;
  }
}

}  // namespace velkoro
