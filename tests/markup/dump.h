#pragma once
// Trees as one line of text, and inputs read in every way a source can deliver them.

#include <gtest/gtest.h>

#include <memory>
#include <span>
#include <sstream>
#include <string>
#include <string_view>

#include "base/exception.h"
#include "markup/element_reader_stream.h"
#include "markup/parse.h"
#include "markup/xml_nodes.h"

namespace zrtest {

constexpr const char* kNoMessage = "nothing thrown";
/// The message of the exception that the action throws, or the integer.
template <typename Action>
std::string MessageOf(Action&& action) {
  try {
    action();
  } catch (const std::exception& e) {
    return e.what();
  } catch (int code) {
    return std::to_string(code);
  }
  return kNoMessage;
}

inline std::string Repeated(std::string_view text, std::size_t times) {
  std::string all;
  all.reserve(text.size() * times);
  while (times-- != 0) all += text;
  return all;
}

/// Elements as name[attribute=value bare](children), text as 'text', whitespace as {n} for a line
/// feed and {.} for a blank, comments as !text!, processing instructions as ?text?, text nodes of
/// pages as "text".
inline std::string Dump(const ZrXMLComplexElement& node) {
  std::ostringstream dump;
  if (const auto* const carrier = dynamic_cast<const ZrXMLTextCarrier*>(&node)) {
    const std::string text(carrier->text());
    if (node.Name() == "comment") return "!" + text + "!";
    if (node.Name() == "procinst") return "?" + text + "?";
    if (node.Name() == "xmltext") return "'" + text + "'";
    for (const char c : text) dump << (c == '\n' ? 'n' : c == '\t' ? 't' : c == '\r' ? 'r' : '.');
    return "{" + dump.str() + "}";
  }
  if (node.IsTextNode()) {
    node.WriteText(dump);
    return '"' + dump.str() + '"';
  }
  dump << node.Name();
  const char* before = "[";
  if (node.AsGeneric() != nullptr) {
    node.AsGeneric()->ForEachWrittenAttribute([&](const std::string& name, const auto* attribute) {
      dump << std::exchange(before, " ") << name;
      if (attribute == nullptr) return;
      dump << '=';
      attribute->WriteValue(dump);
    });
  }
  dump << (*before == ' ' ? "]" : "");
  before = "(";
  for (const ZrXMLComplexElement* child : node.Children()) {
    dump << std::exchange(before, " ") << Dump(*child);
  }
  dump << (*before == ' ' ? ")" : "");
  return dump.str();
}

/// The node as Write() gives it.
inline std::string Written(const ZrXMLComplexElement& node) {
  std::ostringstream text;
  node.Write(text);
  return text.str();
}

inline std::unique_ptr<ZrXMLGenericElement> Element(const char* name) {
  return std::make_unique<ZrXMLGenericElement>(name, true);
}

/// The root of a text that reads without failure.
inline std::unique_ptr<ZrXMLGenericElement> Tree(const std::string& xml) {
  std::istringstream stream(xml);
  std::string error;
  auto root = zr::ParseStream(stream, "xml", error);
  EXPECT_EQ(error, "");
  return std::unique_ptr<ZrXMLGenericElement>(root.release()->AsGeneric());
}

using Kinds = std::span<const ZrDTDDefinition>;

/// All top-level nodes of a text that reads without failure, written one after another.
inline std::string ReadAndWritten(const std::string& text, std::string_view kind = "xml",
                                  Kinds kinds = {}) {
  std::istringstream stream(text);
  ZrDTDElementReaderStream reader(stream, kinds);
  std::ostringstream written;
  const ZrXMLGenericElement* const top = zr::Parse(reader.Splitter(), reader, kind, false);
  for (const ZrXMLComplexElement* node : top->Children()) node->Write(written);
  return written.str();
}

/// A source that implements nothing but the four character operations.
struct CharacterReader : ZrDTDElementReader {
  CharacterReader(std::string_view text, Kinds kinds) : ZrDTDElementReader(kinds), rest(text) {}
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

/// What reading gives: the dump of all top-level nodes, "@" and the line, and after a failure "#"
/// and its message.
inline std::string ReadWith(ZrDTDElementReader& reader, std::string_view kind) {
  const std::string error = MessageOf([&] { zr::Parse(reader.Splitter(), reader, kind, false); });
  std::string dump;
  for (const ZrXMLComplexElement* node : reader.Splitter().top->Children()) {
    dump += Dump(*node) + " ";
  }
  return dump + "@" + std::to_string(reader.Line()) + (error == kNoMessage ? "" : " # " + error);
}

/// Reads the input whole and byte by byte; a difference is a test failure.
inline std::string ReadBothWays(const std::string& input, std::string_view kind, Kinds kinds) {
  std::istringstream stream(input);
  ZrDTDElementReaderStream whole(stream, kinds);
  const std::string result = ReadWith(whole, kind);
  CharacterReader bytes(input, kinds);
  EXPECT_EQ(ReadWith(bytes, kind), result);
  return result;
}

/// The same, and also where the input stands amidst a document, as most of one does.
inline std::string Read(std::string_view input, std::string_view kind = "xml", Kinds kinds = {}) {
  const std::string text(input);
  ReadBothWays("<amidst>" + text + "</amidst>" + Repeated(" ", 40), kind, kinds);
  return ReadBothWays(text, kind, kinds);
}

}  // namespace zrtest
