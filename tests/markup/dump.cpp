#include "tests/markup/dump.h"

#include <gtest/gtest.h>

#include <sstream>

#include "markup/element_reader_stream.h"
#include "markup/parse.h"
#include "markup/xml_nodes.h"

namespace zrtest {

namespace {

struct CharacterReader : ZrDTDElementReader {
  CharacterReader(std::string_view text, std::span<const ZrDTDDefinition> kinds)
      : ZrDTDElementReader(kinds), rest(text) {}
  bool AtEnd() override { return ended; }
  bool Good() override { return !ended; }
  int PeekChar() override {
    ended = rest.empty();
    return ended ? -1 : static_cast<unsigned char>(rest.front());
  }
  int GetChar() override {
    const int byte = PeekChar();
    if (!ended) rest.remove_prefix(1);
    return byte;
  }
  std::string_view rest;
  bool ended = false;
};

std::string ReadWith(ZrDTDElementReader& reader, std::string_view kind) {
  const std::string error = MessageOf([&] { zr::Parse(reader.Splitter(), reader, kind, false); });
  std::string dump;
  for (const ZrXMLComplexElement* node : reader.Splitter().top->Children()) {
    dump += Dump(*node) + " ";
  }
  return dump + "@" + std::to_string(reader.Line()) + (error == kNoMessage ? "" : " # " + error);
}

std::string Attributes(const ZrXMLGenericElement& element) {
  std::ostringstream text;
  element.ForEachAttribute([&](const std::string& name, const ZrXMLComplexAttribute2* attribute) {
    if (attribute != nullptr && !attribute->IsSet()) return;
    text << (text.str().empty() ? "" : " ") << name;
    if (attribute == nullptr) return;
    text << '=';
    attribute->WriteValue(text);
  });
  return text.str().empty() ? std::string() : "[" + text.str() + "]";
}

}  // namespace

std::string Dump(const ZrXMLComplexElement& node) {
  if (const auto* const carrier = dynamic_cast<const ZrXMLTextCarrier*>(&node)) {
    const std::string text(carrier->text());
    if (node.Name() == "comment") return "!" + text + "!";
    if (node.Name() == "procinst") return "?" + text + "?";
    if (node.Name() == "xmltext") return "'" + text + "'";
    std::string marks;
    for (const char c : text) marks += c == '\n' ? 'n' : c == '\t' ? 't' : c == '\r' ? 'r' : '.';
    return "{" + marks + "}";
  }
  if (node.IsTextNode()) {
    std::ostringstream text;
    node.WriteText(text);
    return '"' + text.str() + '"';
  }
  std::string dump = node.Name();
  if (node.AsGeneric() != nullptr) dump += Attributes(*node.AsGeneric());
  std::string below;
  for (const ZrXMLComplexElement* child : node.Children()) {
    below += (below.empty() ? "" : " ") + Dump(*child);
  }
  return below.empty() ? dump : dump + "(" + below + ")";
}

std::string Written(const ZrXMLComplexElement& node) {
  std::ostringstream text;
  node.Write(text);
  return text.str();
}

std::string ReadAndWritten(const std::string& text, std::string_view kind,
                           std::span<const ZrDTDDefinition> kinds) {
  std::istringstream stream(text);
  ZrDTDElementReaderStream reader(stream, kinds);
  std::ostringstream written;
  const ZrXMLGenericElement* const top = zr::Parse(reader.Splitter(), reader, kind, false);
  for (const ZrXMLComplexElement* node : top->Children()) node->Write(written);
  return written.str();
}

std::string Read(std::string_view input, std::string_view kind,
                 std::span<const ZrDTDDefinition> kinds) {
  std::istringstream stream{std::string(input)};
  ZrDTDElementReaderStream whole(stream, kinds);
  const std::string result = ReadWith(whole, kind);
  CharacterReader bytes(input, kinds);
  EXPECT_EQ(ReadWith(bytes, kind), result);
  return result;
}

void ExpectRead(std::span<const ReadCase> cases, std::string_view kind,
                std::span<const ZrDTDDefinition> kinds) {
  for (const ReadCase& c : cases) EXPECT_EQ(Read(c.input, kind, kinds), c.result) << c.name;
}

std::string Repeated(std::string_view text, std::size_t times) {
  std::string all;
  all.reserve(text.size() * times);
  while (times-- != 0) all += text;
  return all;
}

}  // namespace zrtest
