#pragma once
// Trees as one line of text, and inputs read in every way a source can deliver them.

#include <span>
#include <string>
#include <string_view>

#include "base/exception.h"
#include "markup/complex_element.h"
#include "markup/dtd.h"

namespace zrtest {

/// Elements as name[attribute=value bare](children), text as 'text', whitespace as {n} for a line
/// feed and {.} for a blank, comments as !text!, processing instructions as ?text?, text nodes of
/// pages as "text".
std::string Dump(const ZrXMLComplexElement& node);

/// The node as Write() gives it.
std::string Written(const ZrXMLComplexElement& node);

/// All top-level nodes of a text that reads without failure, written one after another.
std::string ReadAndWritten(const std::string& text, std::string_view kind = "xml",
                           std::span<const ZrDTDDefinition> kinds = {});

/// What reading gives: the dump of all top-level nodes, "@" and the line, and after a failure "#"
/// and its message. Reads the input whole, and byte by byte from a source that implements nothing
/// but the four character operations; a difference is a test failure.
std::string Read(std::string_view input, std::string_view kind = "xml",
                 std::span<const ZrDTDDefinition> kinds = {});

struct ReadCase {
  const char* name;
  std::string_view input;
  std::string_view result;
};
/// Expects of each case what Read() gives.
void ExpectRead(std::span<const ReadCase> cases, std::string_view kind = "xml",
                std::span<const ZrDTDDefinition> kinds = {});

std::string Repeated(std::string_view text, std::size_t times);

constexpr const char* kNoMessage = "nothing thrown";
/// The message of the ZrException that the action throws, or the integer.
template <typename Action>
std::string MessageOf(Action&& action) {
  try {
    action();
  } catch (const ZrException& e) {
    return e.what();
  } catch (int code) {
    return std::to_string(code);
  }
  return kNoMessage;
}

}  // namespace zrtest
