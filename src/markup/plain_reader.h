#pragma once
// The short way through plain XML. Nearly all tokens of a document are start and end tags, words
// and blanks, all of them whole in the window, and become nodes of classes without hooks. Those are
// read here, without states, transactions and factories in between, into the same nodes. Whatever
// is out of the ordinary stays unread, and the parser takes its own way with it: a token that ends
// beyond the window, a comment, a long text, everything that is wrong. So no error is raised here,
// and a document that comes byte by byte is read without this.

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "markup/content_splitter.h"
#include "markup/dtd.h"
#include "markup/element_reader.h"

namespace zr {

/// Lives for one Run(), inside the scope of the reader's pool.
class PlainReader {
 public:
  PlainReader(ZrXMLContentSplitter& splitter, ZrDTDElementReader& reader, ZrDTD& dtd);

  /// Whether there can be anything to do for it in documents of that kind.
  static bool Knows(ZrDTD& dtd) {
    return dtd.KindOfNodes() >= ZrDTD::Nodes::kPlainTexts && dtd.VoidNames().empty();
  }

  /// Reads tokens as far as they are plain; whether it read any. Only of a kind that it knows.
  bool Run();

 private:
  static constexpr std::size_t kMostAttributes = 16;

  struct Name {
    NameText* text;
    std::uint64_t order;  // its first eight bytes, as a number that sorts like them
  };
  struct Attribute {
    Name name;
    const char* value;
    std::size_t size;
  };

  bool IsOpen() const;
  template <bool plain>
  void ReadTokens();
  // Each reads the token at at_ and answers its end, null where it is none for this reader.
  template <bool plain>
  const char* ReadStartTag();
  const char* ReadEndTag();
  const char* ReadText();
  const char* ReadWhitespace();
  // The parts of a start tag, in the same way.
  template <bool plain>
  const char* ReadName(const char* at, Name& name);
  template <bool plain>
  const char* ReadAttribute(const char* at);
  const char* SkipWhitespace(const char* at);
  bool OrderAttributes();

  void MakeElement(NameText& name, bool ownLine, bool selfClosed);
  template <class Node>
  void MakeText(const char* end);
  ZrShortText::Source CutText(const char* text, std::size_t size);
  void Link(ZrXMLComplexElement* node);

  ZrXMLContentSplitter& splitter_;
  ZrDTDElementReader& reader_;
  ZrDTD& dtd_;
  NodePool& pool_;
  ZrNameTable& names_;
  ZrXMLComplexElement* current_;
  NameText* kind_ = nullptr;    // the name of the document kind
  const char* at_ = nullptr;    // in the window: what is not read
  const char* last_ = nullptr;  // where sixteen bytes still lie in the window
  // Of the start tag at at_.
  std::array<Attribute, kMostAttributes> attributes_;
  std::size_t count_ = 0;
  std::size_t memory_ = 0;  // for the attributes
  std::uint64_t lineFeeds_ = 0;
};

}  // namespace zr
