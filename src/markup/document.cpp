// Document of velkoro/documents.h.

#include <algorithm>
#include <istream>
#include <iterator>
#include <ostream>
#include <sstream>

#include "base/exception.h"
#include "markup/document_access.h"
#include "markup/document_text.h"
#include "markup/parse.h"
#include "markup/write.h"
#include "platform/filesystem.h"
#include "platform/io.h"

namespace velkoro {

namespace {

constexpr std::size_t kMaxDocumentBytes = std::size_t{1} << 30;
constexpr unsigned kNewFileMode = 0644;
constexpr std::string_view kBlanks = " \t\r\n";
constexpr char kDeclaration[] = "xml version=\"1.0\" encoding=\"UTF-8\"";

// A reader on bytes in memory, which knows how far it came.
class TextReader : public ZrDTDElementReader {
 public:
  explicit TextReader(std::string_view text) : ZrDTDElementReader(zr::FacadeKinds()), text_(text) {}

  bool AtEnd() override { return next_ == text_.size(); }
  bool Good() override { return !AtEnd(); }
  int PeekChar() override { return AtEnd() ? -1 : static_cast<unsigned char>(text_[next_]); }
  int GetChar() override {
    const int byte = PeekChar();
    if (byte >= 0) ++next_;
    return byte;
  }
  std::size_t ReadBlock(char* to, std::size_t room) override {
    const std::size_t count = text_.copy(to, room, next_);
    next_ += count;
    return count;
  }
  /// The first byte that no token took, and its line.
  std::size_t Offset() const { return next_ - std::min(next_, UnreadSize()); }
  std::uint64_t Place() const { return 1 + zr::CountLineFeeds(text_.substr(0, Offset())); }

 private:
  const std::string_view text_;
  std::size_t next_ = 0;
};

[[noreturn]] void Fail(std::string_view name, std::uint64_t line, std::string what) {
  std::string message(name);
  if (!name.empty()) message += ':';
  if (line != 0) message += (name.empty() ? "line " : "") + std::to_string(line) + ':';
  throw DocumentError(message.empty() ? what : message + ' ' + what, line);
}

// The parser's message without the line that it puts behind it, which counts what was tried in
// vain.
std::string Plain(std::string what) {
  const std::size_t line = what.rfind(" around line ");
  if (line != std::string::npos) what.resize(line);
  if (what.starts_with("reading error")) return "neither a tag nor a text";
  return what;
}

// A value that was read between single quotes is written between double ones.
void EscapeQuotes(ZrXMLComplexElement& top) {
  std::vector<std::string> names;
  for (ZrXMLComplexElement* at = &top; at != nullptr; at = NodeAccess::NextInTree(*at, top)) {
    ZrXMLGenericElement& element = *at->AsGeneric();
    names.clear();
    element.ForEachAttribute([&](const std::string& name, const ZrXMLComplexAttribute2*) {
      if (element.AttributeValue(name, {}).find('"') != std::string::npos) names.push_back(name);
    });
    for (const std::string& name : names) {
      std::string value = element.AttributeValue(name, {});
      for (std::size_t quote = 0; (quote = value.find('"', quote)) != std::string::npos;)
        value.replace(quote, 1, "&quot;");
      element.SetAttribute(name, value);
    }
  }
}

// The line where the node of that number at the top begins. Nodes do not know where they stood: the
// input is read again up to there.
std::uint64_t LineOf(std::size_t number, std::string_view input) {
  TextReader reader(input);
  const ZrXMLContentSplitter& splitter = reader.Splitter();
  std::size_t start = 0;
  while (splitter.top->Children().size() <= number) {
    start = reader.Offset();
    zr::Parse(reader.Splitter(), reader, zr::kXmlDocument, true);
  }
  start = std::min(input.find_first_not_of(kBlanks, start), input.size());
  return 1 + zr::CountLineFeeds(input.substr(0, start));
}

// What the parser lets pass and XML does not.
void CheckXml(const TopNode& top, std::string_view input, std::string_view name) {
  std::size_t roots = 0;
  std::size_t number = 0;
  for (const ZrXMLComplexElement* child : top.Children()) {
    if (NodeAccess::IsElement(*child) && ++roots > 1)
      Fail(name, LineOf(number, input), "the document has more than one root");
    if (NodeAccess::KindOf(*child) == NodeKind::kText) {
      const std::string_view text = static_cast<const ZrXMLTextCarrier*>(child)->text();
      if (text.find_first_not_of(kBlanks) != std::string_view::npos) {
        Fail(name, LineOf(number, input),
             "the text '" + std::string(text.substr(0, 40)) + "' stands outside of the root");
      }
    }
    ++number;
  }
  if (roots == 0) Fail(name, 1 + zr::CountLineFeeds(input), "the document has no root");
}

}  // namespace

void TopNode::Write(std::ostream& stream) const {
  for (const ZrXMLComplexElement* child : Children()) child->Write(stream);
}

Document::Document(std::unique_ptr<Tree> tree) noexcept : tree_(std::move(tree)) {}
Document::Document(Document&&) noexcept = default;
Document& Document::operator=(Document&&) noexcept = default;
Document::~Document() = default;

Document::Tree& Document::Held() const {
  if (!tree_) throw DocumentError("the document was moved away", 0);
  return *tree_;
}

Document::Document(std::string_view rootName, DocumentKind kind)
    : tree_(std::make_unique<Tree>(Tree{std::make_unique<TopNode>(kind)})) {
  Part root = Part::Element(rootName, kind);
  TopNode& top = *Held().top;
  if (kind == DocumentKind::kXml)
    top.Adopt(std::make_unique<ZrXML_ProcInst2>(kDeclaration));
  else
    top.Adopt(std::make_unique<zr::DoctypeNode>("DOCTYPE html"));
  top.Adopt(std::make_unique<ZrXMLGenericWhitespace>("\n"));
  Add(std::move(root));
  top.Adopt(std::make_unique<ZrXMLGenericWhitespace>("\n"));
}

Document Document::ReadText(std::string_view text, DocumentKind kind, std::string_view name) {
  if (text.size() > kMaxDocumentBytes) Fail(name, 0, "longer than 1 GiB");
  constexpr std::string_view kByteOrderMark = "\xef\xbb\xbf";
  if (text.starts_with(kByteOrderMark)) text.remove_prefix(kByteOrderMark.size());
  auto tree = std::make_unique<Tree>(Tree{std::make_unique<TopNode>(kind)});
  TextReader reader(text);
  reader.Pool().KeepWhole();
  ZrXMLContentSplitter& splitter = reader.Splitter();
  TopNode* const top = tree->top.get();
  splitter.top = std::move(tree->top);
  splitter.current = top;
  if (!text.empty()) {
    try {
      zr::Parse(splitter, reader, kind == DocumentKind::kXml ? zr::kXmlDocument : zr::kPageDocument,
                false);
    } catch (const ZrException& e) {
      Fail(name, reader.Place(), Plain(e.what()));
    }
  }
  if (splitter.current != top)
    Fail(name, reader.Place(), "the element '" + splitter.current->Name() + "' is not closed");
  if (kind == DocumentKind::kXml) CheckXml(*top, text, name);
  if (text.find('\'') != std::string_view::npos) EscapeQuotes(*top);
  (void)splitter.top.release();
  tree->top.reset(top);
  if (!top->Children().empty() && reader.Pool().TakeWhole()) top->MarkTopOfStore();
  return Document(std::move(tree));
}

Document Document::ReadStream(std::istream& stream, DocumentKind kind, std::string_view name) {
  if (!stream.good()) Fail(name, 0, "the stream can't be read");
  std::string text;
  char block[4096];
  while (stream.read(block, sizeof block) || stream.gcount() != 0) {
    text.append(block, static_cast<std::size_t>(stream.gcount()));
    if (text.size() > kMaxDocumentBytes) break;
  }
  if (stream.bad()) Fail(name, 0, "the stream can't be read");
  return ReadText(text, kind, name);
}

Document Document::ReadFile(const std::string& path, DocumentKind kind) {
  int error = 0;
  const std::optional<std::string> text = zr::ReadWholeFile(path, kMaxDocumentBytes, &error);
  if (!text) Fail(path, 0, zr::SystemErrorText(error));
  return ReadText(*text, kind, path);
}

DocumentKind Document::Kind() const { return Held().top->Kind(); }

Element Document::Root() const {
  for (const ZrXMLComplexElement* child : Held().top->Children())
    if (NodeAccess::IsElement(*child)) return NodeAccess::ElementHandle(child);
  return {};
}

std::vector<Node> Document::Nodes() const {
  std::vector<Node> nodes;
  for (const ZrXMLComplexElement* child : Held().top->Children())
    nodes.push_back(NodeAccess::Handle(child));
  return nodes;
}

std::vector<Element> Document::Query(std::string_view path) const {
  return NodeAccess::Find(*Held().top, path, false);
}

Element Document::QueryFirst(std::string_view path) const {
  const std::vector<Element> found = NodeAccess::Find(*Held().top, path, true);
  return found.empty() ? Element() : found.front();
}

Node Document::Add(Part&& part) {
  return NodeAccess::Handle(NodeAccess::Insert(*Held().top, nullptr, std::move(part)));
}

Document Document::Copy() const {
  auto copy = std::make_unique<Tree>(Tree{std::make_unique<TopNode>(Kind())});
  for (const ZrXMLComplexElement* child : Held().top->Children())
    copy->top->Adopt(NodeAccess::CopyOf(*child));
  return Document(std::move(copy));
}

void Document::Write(std::ostream& stream) const {
  Held().top->Write(stream);
  if (!stream) throw DocumentError("the stream took less than the document", 0);
}

std::string Document::Text() const {
  std::ostringstream text;
  Write(text);
  return std::move(text).str();
}

void Document::WriteFile(const std::string& path) const {
  const int error = zr::RewriteFile(path, Text(), kNewFileMode);
  if (error != 0) Fail(path, 0, zr::SystemErrorText(error));
}

}  // namespace velkoro
