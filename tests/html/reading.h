#pragma once
// A reader of HTML and CSS for the tests of this folder.

#include <sstream>
#include <string>

#include "host/zrexception.h"
#include "html/zrhtmldtd.h"
#include "markup/zrdtdelementreaderstream.h"
#include "markup/zrparse.h"

namespace zr::test {

/// Reads a text; Top() holds what was read.
class Reading {
 public:
  Reading(const std::string& kind, const std::string& text)
      : stream_(text), reader_(stream_, HtmlDocumentKinds()), kind_(kind) {}

  /// Empty, or the message of the failure.
  std::string Error() {
    try {
      Parse(reader_.Splitter(), reader_, kind_, false);
    } catch (const ZrException& e) {
      return e.what();
    }
    return {};
  }
  ZrXMLGenericElement& Top() { return *reader_.Splitter().top; }
  ZrDTD& Kind() { return *reader_.FindDTD(kind_); }
  /// All top-level nodes, written one after another.
  std::string Written() {
    std::ostringstream text;
    for (const ZrXMLComplexElement* child : Top().Children()) child->Write(text);
    return text.str();
  }

 private:
  std::istringstream stream_;
  ZrDTDElementReaderStream reader_;
  const std::string kind_;
};

}  // namespace zr::test
