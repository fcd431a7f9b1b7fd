#pragma once
// A document kind: the tokens that can occur in it and the nodes they become. A reader has one of
// each kind that its input switches between ("html" to "css" inside a style element, say).

#include <array>
#include <bitset>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "markup/complex_element.h"
#include "markup/name.h"
#include "markup/reader_state.h"

class ZrDTD {
 public:
  /// Makes the node of a token from the token's text. May answer null, which the parser reports as
  /// a problem in the DTD.
  using Factory = std::unique_ptr<ZrXMLComplexElement> (*)(std::string_view text, ZrDTD& dtd);
  /// Makes the element of an HTML tag; the text is ignored by all of them.
  using TagFactory = std::unique_ptr<ZrXMLComplexElement> (*)(const std::string& text);

  /// A state with what belongs to it.
  struct State {
    std::unique_ptr<ZrDTDElementRead> prototype;
    Factory factory;  // null for closing tokens
    bool container;   // its nodes take content
  };

  /// The table of shared names outlives the DTD; both belong to one reader.
  ZrDTD(ZrNameView name, ZrNameTable& names) : name_(name), names_(names) {}
  ZrDTD(const ZrDTD&) = delete;
  ZrDTD& operator=(const ZrDTD&) = delete;

  const ZrName& Name() const { return name_; }
  /// The shared name for a text that may repeat in the document; good as long as the reader.
  ZrNameView SharedName(std::string_view text) { return names_.Intern(text); }

  /// Registers a state; states are tried in the byte-wise order of their names. Throws ZrException
  /// "name can't be twice" for a name that is there already. At most 64 states.
  void AddState(std::unique_ptr<ZrDTDElementRead> prototype, Factory factory, bool container);
  /// What the nodes of this kind are, from the least known to the most.
  enum class Nodes {
    kAny,
    // Of classes that keep nothing outside of node memory but names, and have no hooks.
    kPlain,
    // Texts, runs of whitespace and end tags that give the name as it is are those of "xml".
    kPlainTexts,
    // Start tags as well, with names as documents have them; elements have no lines of their own.
    kPlainDocument,
    // Start tags as well, as in "xml".
    kPlainXml,
  };
  /// Once all states are registered: one that is registered later may be anything.
  void SetNodes(Nodes nodes) { nodes_ = nodes; }
  Nodes KindOfNodes() const { return nodes_; }
  bool HasPlainNodes() const { return nodes_ != Nodes::kAny; }
  /// Registers a state whose token only closes elements.
  void AddCloser(std::unique_ptr<ZrDTDElementRead> prototype) {
    AddState(std::move(prototype), nullptr, false);
  }

  /// The first state that recognises a token at the reader's position; null when none does.
  State* Recognise(ZrDTDElementReader& reader);

  /// Names of elements that never take content: the next token closes such an element. Filled by
  /// the HTML element family.
  std::set<std::string, std::less<>>& VoidNames() { return voidNames_; }
  /// Element factories by tag name. Filled by the HTML element family.
  std::map<std::string, TagFactory, std::less<>>& TagFactories() { return tagFactories_; }

 private:
  // The states, by their position, whose tokens can begin with a byte or have it second.
  struct Begun {
    std::uint64_t first;
    std::uint64_t second;
  };
  const Begun& ByByte(int byte) {
    const auto index = static_cast<std::size_t>(byte);
    if (!found_[index]) [[unlikely]]
      Find(index);
    return byByte_[index];
  }
  void Find(std::size_t byte);

  const ZrName name_;
  ZrNameTable& names_;
  std::vector<State> states_;      // ordered by name
  std::array<Begun, 256> byByte_;  // of those bytes that were found_
  std::bitset<256> found_;
  Nodes nodes_ = Nodes::kAny;
  std::set<std::string, std::less<>> voidNames_;
  std::map<std::string, TagFactory, std::less<>> tagFactories_;
};

/// How a layer above adds its document kinds to a reader: fill() registers the states of the DTD of
/// that name, once for each reader that comes to use it.
struct ZrDTDDefinition {
  const char* name;
  void (*fill)(ZrDTD& dtd);
};
