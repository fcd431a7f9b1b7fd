#include "tests/markup/dump.h"

#include <gtest/gtest.h>

#include <sstream>
#include <streambuf>

#include "host/zrexception.h"
#include "markup/zrdtdelementreaderstream.h"
#include "markup/zrparse.h"
#include "markup/zrxmlnodes.h"

namespace zr_test {

namespace {

struct ByteBuffer : std::streambuf {
  explicit ByteBuffer(std::string_view text) : rest(text) {}
  int underflow() override {
    if (rest.empty()) return -1;
    byte = rest.front();
    rest.remove_prefix(1);
    setg(&byte, &byte, &byte + 1);
    return static_cast<unsigned char>(byte);
  }
  std::string_view rest;
  char byte = 0;
};

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

std::string ReadWith(ZrDTDElementReader& reader, std::string_view dtd) {
  std::string error;
  try {
    zr::Parse(reader.Splitter(), reader, dtd, false);
  } catch (const ZrException& e) {
    error = std::string(" # ") + e.what();
  }
  std::string dump;
  for (const ZrXMLComplexElement* node : reader.Splitter().top->Children()) {
    dump += Dump(*node) + " ";
  }
  return dump + "@" + std::to_string(reader.Line()) + error;
}

std::string Attributes(const ZrXMLGenericElement& element) {
  std::ostringstream text;
  element.ForEachAttribute([&](const std::string& name, const ZrXMLComplexAttribute2* attribute) {
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

std::string Read(std::string_view input, std::string_view dtd,
                 std::span<const ZrDTDDefinition> kinds) {
  std::istringstream wholeStream{std::string(input)};
  ZrDTDElementReaderStream whole(wholeStream, kinds);
  const std::string result = ReadWith(whole, dtd);

  ByteBuffer bytes(input);
  std::istream byteStream(&bytes);
  ZrDTDElementReaderStream pieces(byteStream, kinds);
  EXPECT_EQ(ReadWith(pieces, dtd), result);

  CharacterReader characters(input, kinds);
  EXPECT_EQ(ReadWith(characters, dtd), result);
  return result;
}

}  // namespace zr_test
