#pragma once
// XML documents and HTML pages: read, searched, changed and written.
//
//   velkoro::Document house = velkoro::Document::ReadFile("house.xml");
//   for (velkoro::Element lamp : house.Root().Query("room[name=attic]/lamp")) {
//     lamp.Set("watt", "9");
//   }
//   house.WriteFile("house.xml");
//
// Ownership. A Document owns its nodes, a Part owns a node that stands in no document. Node and
// Element are handles the size of a pointer: they own nothing, are copied freely, and are good
// until their node is destroyed, with its Document or Part, by Clear() or SetText() of an element
// above it. Moving a Document or a Part leaves them good.
// A handle may be empty (nothing was found); it tests as false.
//
// Text and values are what a reader of the document sees: "<" in a text is written as "&lt;" and
// read back as "<". References to characters and the five named ones of XML are resolved; others
// stay as they are.
//
// Errors are DocumentError, for everything: malformed input, a file that cannot be read or
// written, a name that is none, and the use of an empty handle, an empty Part or a Document that
// was moved away. What fails changes nothing: a Part that is refused keeps its node. Memory that
// runs out is std::bad_alloc.
//
// Threads. A document, with all its handles, belongs to one thread at a time.

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace velkoro {

class Element;
class Part;
struct NodeBody;

/// What went wrong, as one sentence: "house.xml:3: wrong closing tag '/room' instead '/lamp'".
class DocumentError : public std::runtime_error {
 public:
  DocumentError(const std::string& what, std::uint64_t line)
      : std::runtime_error(what), line_(line) {}

  /// The line of the input, from 1; 0 for an error that has no place in an input.
  std::uint64_t Line() const noexcept { return line_; }

 private:
  std::uint64_t line_;
};

/// What is read.
enum class DocumentKind {
  /// One root element; everything is closed; names are compared byte for byte.
  kXml,
  /// A page or a part of one. Names of tags are read in any case and kept in lower case; void
  /// elements (br, img, ...) have no end tag; values need no quotes; a "<" that begins no tag, and
  /// the content of script, style, textarea and title, are text. End tags may not be left out.
  kHtml,
};

enum class NodeKind {
  kElement,
  kText,  // a word, or the whitespace between two: a run of text is several nodes
  kComment,
  kInstruction,  // <?...?>, the XML declaration among them
  kDoctype,
};

/// A node of a document.
class Node {
 public:
  Node() = default;
  /// Whether there is a node. Every other operation throws DocumentError when there is none.
  explicit operator bool() const noexcept { return body_ != nullptr; }
  friend bool operator==(const Node& a, const Node& b) noexcept { return a.body_ == b.body_; }

  NodeKind Kind() const;
  /// This node as an element, empty when it is none.
  Element AsElement() const;
  /// The element that holds this node; empty for a root and for what stands beside it.
  Element Parent() const;
  /// The nodes beside this one; empty at the ends.
  Node Next() const;
  Node Previous() const;

  /// The text of the node and everything below it, in order; for a comment, an instruction and a
  /// document type what stands between the brackets.
  std::string Text() const;
  /// The node as it is written.
  std::string Markup() const;

  /// A copy with everything below it.
  Part Copy() const;
  /// Takes the node out of its element or document and hands it over. An XML document whose root
  /// is removed has none until another is put in its place.
  [[nodiscard]] Part Remove();
  /// Puts the part into the place of this node, which is handed over.
  [[nodiscard]] Part Replace(Part&& part);
  /// Puts the part beside this node. Returns it. Throws when this node is the top of a Part, for a
  /// second element or a text beside the root of an XML document, and for an element of XML in a
  /// page or the other way round, which are written differently.
  Node InsertBefore(Part&& part);
  Node InsertAfter(Part&& part);

 protected:
  explicit Node(NodeBody* body) noexcept : body_(body) {}

 private:
  friend struct NodeAccess;
  NodeBody* body_ = nullptr;
};

/// An element. Lists of elements are values: the tree may be changed while one is gone through.
class Element : public Node {
 public:
  Element() = default;

  const std::string& Name() const;

  /// The value of the attribute; nothing when it is absent.
  std::optional<std::string> Attribute(std::string_view name) const;
  std::string Attribute(std::string_view name, std::string_view whenAbsent) const;
  /// Sets the attribute. Throws for a name that is none.
  void Set(std::string_view name, std::string_view value);
  /// Whether there was one.
  bool Unset(std::string_view name);
  /// All of them, by name in byte-wise order.
  std::vector<std::pair<std::string, std::string>> Attributes() const;

  /// The first child element, of that name unless it is empty; empty when there is none.
  Element First(std::string_view name = {}) const;
  /// The child elements in order, of that name unless it is empty.
  std::vector<Element> Children(std::string_view name = {}) const;
  /// All children in order.
  std::vector<Node> Nodes() const;
  /// The elements that the path leads to from this one, in document order, each once. A path is
  /// steps with "/" between them, each a name or "*" for a child; "//" in front of a step looks at
  /// every depth; conditions follow in brackets: [attribute], [attribute=value],
  /// [attribute="value"], each of which must hold. Throws for a malformed path and for one of more
  /// than 60 steps.
  ///   "room/lamp"   "//lamp[watt=40]"   "room[name=\"the attic\"]/*"
  std::vector<Element> Query(std::string_view path) const;
  /// The first of them, empty when there is none.
  Element QueryFirst(std::string_view path) const;

  /// Appends an element of that name, a text, or the part. Returns what was appended. Throws for a
  /// name that is none, and for a void element of a page, which takes no children.
  Element Add(std::string_view name);
  Node AddText(std::string_view text);
  Node Add(Part&& part);
  /// Destroys all children.
  void Clear();
  /// Destroys all children and adds the text.
  void SetText(std::string_view text);

 private:
  friend struct NodeAccess;
  friend class Node;
  explicit Element(NodeBody* body) noexcept : Node(body) {}
};

/// A node that stands in no document, and everything below it. Empty after it was moved from.
class Part {
 public:
  Part() = default;
  Part(Part&& other) noexcept : body_(std::exchange(other.body_, nullptr)) {}
  Part& operator=(Part&& other) noexcept {
    std::swap(body_, other.body_);
    return *this;
  }
  ~Part();

  /// An element without attributes and children. Throws for a name that is none.
  static Part Element(std::string_view name, DocumentKind kind = DocumentKind::kXml);
  static Part Text(std::string_view text);
  /// Throws for a text that holds "--", ends in "-" or begins with ">" or "->".
  static Part Comment(std::string_view text);
  /// Throws for a text that holds "?>".
  static Part Instruction(std::string_view text);
  /// One element, read from markup. Throws for malformed markup and for anything beside it.
  static Part Markup(std::string_view markup, DocumentKind kind = DocumentKind::kXml);

  explicit operator bool() const noexcept { return body_ != nullptr; }
  /// The node, for as long as the part owns it. Throws when the part is empty.
  Node Get() const;
  /// The node as an element, empty when it is none.
  velkoro::Element GetElement() const;

 private:
  friend struct NodeAccess;
  explicit Part(NodeBody* body) noexcept : body_(body) {}

  NodeBody* body_ = nullptr;  // owned
};

/// A document: the root with what stands around it.
class Document {
 public:
  /// A new document with a root of that name: an XML declaration, or the line "<!DOCTYPE html>".
  explicit Document(std::string_view rootName, DocumentKind kind = DocumentKind::kXml);
  Document(Document&&) noexcept;
  Document& operator=(Document&&) noexcept;
  ~Document();

  /// Read a whole document; its text is UTF-8 or another encoding in which ASCII bytes are ASCII.
  /// At most 1 GiB, at most 1,000 elements in each other. `name` stands in front of messages.
  static Document ReadFile(const std::string& path, DocumentKind kind = DocumentKind::kXml);
  static Document ReadText(std::string_view text, DocumentKind kind = DocumentKind::kXml,
                           std::string_view name = {});
  static Document ReadStream(std::istream& stream, DocumentKind kind = DocumentKind::kXml,
                             std::string_view name = {});

  DocumentKind Kind() const;
  /// The first element. Empty for an XML document whose root was removed, and for a part of a page
  /// without one.
  Element Root() const;
  /// What stands at the top in order: the root, and comments, instructions, the document type and
  /// whitespace around it.
  std::vector<Node> Nodes() const;
  /// As of an element that holds what Nodes() gives.
  std::vector<Element> Query(std::string_view path) const;
  Element QueryFirst(std::string_view path) const;
  /// Appends the part at the top, as Node::InsertAfter() does.
  Node Add(Part&& part);
  Document Copy() const;

  /// Lays the document out anew: each element that holds no text of its own stands on a line, so
  /// many blanks deep for each level.
  void Indent(unsigned blanks = 2);

  /// The document as text: what was read is written as it was, except for attributes, which are
  /// written by name and in double quotes, empty elements, which are written as `<a />`, and a "<"
  /// of a page's text, which is written as "&lt;".
  std::string Text() const;
  void Write(std::ostream& stream) const;
  /// Puts the text into the file, whole or not at all: readers of the file see the old content or
  /// the new one, also when the machine stops in between. Files that it makes are for the owner to
  /// write and all to read.
  void WriteFile(const std::string& path) const;

 private:
  struct Tree;
  explicit Document(std::unique_ptr<Tree> tree) noexcept;
  Tree& Held() const;

  std::unique_ptr<Tree> tree_;
};

/// The text with "&", "<", ">" and both quotes written as references: good as a text and as a
/// value.
std::string Escape(std::string_view text);
/// The text with references to characters ("&#65;", "&#x41;") and "&amp;", "&lt;", "&gt;",
/// "&quot;", "&apos;" resolved. Anything else stays as it is.
std::string Unescape(std::string_view text);

}  // namespace velkoro
