// velkoro markup: reads a document and writes it back, looks paths up in it or turns it into
// script.

#include <exception>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <utility>

#include "cli/command.h"
#include "host/zrexception.h"
#include "html/zrhtmlbaseelement2.h"
#include "html/zrhtmldtd.h"
#include "markup/zrdtdelementreaderstream.h"
#include "markup/zrparse.h"
#include "platform/zroutput.h"

namespace zr::cli {
namespace {

constexpr const char* kExamples =
    "Examples:\n"
    "  velkoro markup write page.html --dtd html\n"
    "  velkoro markup query config.xml 'servers.server[name=main]' --attribute port\n"
    "  echo '<div id=\"a\">b</div>' | velkoro markup script -\n"
    "A path is names separated by dots, each with an optional [attribute] or [attribute=value]. "
    "It\n"
    "starts at the root element and may name it. Status 1 says that nothing was found, or that "
    "the\n"
    "document could not be read.";

struct MarkupArguments {
  std::string kind;
  std::string file;
  std::string path;
  std::optional<std::string> attribute;
};

// A document that was read; failures of the input are said with the file's name in front.
class Document {
 public:
  explicit Document(const MarkupArguments& arguments)
      : stream_(Text(arguments.file)), reader_(stream_, HtmlDocumentKinds()) {
    Parse(reader_.Splitter(), reader_, arguments.kind, false);
  }

  ZrXMLGenericElement& Top() { return *reader_.Splitter().top; }
  /// The first top-level node that the test accepts, null when there is none.
  template <class Test>
  ZrXMLComplexElement* First(Test&& accepts) {
    for (ZrXMLComplexElement* node : Top().Children()) {
      if (accepts(*node)) return node;
    }
    return nullptr;
  }

 private:
  static std::string Text(const std::string& file) {
    if (file == "-") return {std::istreambuf_iterator<char>(std::cin), {}};
    std::ifstream stream(file, std::ios::binary);  // a pipe will do as well
    if (!stream) throw ZrException("cannot be read", __LINE__, "src");
    return {std::istreambuf_iterator<char>(stream), {}};
  }

  std::istringstream stream_;
  ZrDTDElementReaderStream reader_;
};

int Write(const MarkupArguments& arguments) {
  Document document(arguments);
  std::ostringstream out;
  for (const ZrXMLComplexElement* node : document.Top().Children()) node->Write(out);
  return WriteOutput(out.str()) ? kSuccess : kFailure;
}

int Query(const MarkupArguments& arguments) {
  Document document(arguments);
  ZrXMLComplexElement* const root = document.First([](const ZrXMLComplexElement& node) {
    return node.OwnLine() && !node.IsTextNode() && node.Name() != "HTMLDoctype" &&
           node.AsGeneric() != nullptr;
  });
  if (root == nullptr) return kFailure;
  std::ostringstream out;
  bool found = false;
  const auto elements = root->AsGeneric()->Query(arguments.path);
  for (const ZrXMLGenericElement* element : *elements) {
    if (!arguments.attribute) {
      if (found) out << '\n';
      element->Write(out);
    } else if (element->HasAttribute(*arguments.attribute)) {
      out << element->AttributeValue(*arguments.attribute, "") << '\n';
    } else {
      continue;
    }
    found = true;
  }
  return WriteOutput(out.str()) && found ? kSuccess : kFailure;
}

int Script(const MarkupArguments& arguments) {
  Document document(arguments);
  const auto* const element =
      dynamic_cast<ZrHTML_BaseElement2*>(document.First([](const ZrXMLComplexElement& node) {
        return dynamic_cast<const ZrHTML_BaseElement2*>(&node) != nullptr && !node.IsTextNode();
      }));
  if (element == nullptr) throw ZrException("no HTML element to make a script of", __LINE__, "src");
  return WriteOutput(element->ToScript()) ? kSuccess : kFailure;
}

// One of the three commands; what they have in common.
CLI::App& Add(CLI::App& markup, Run& chosen, const std::shared_ptr<MarkupArguments>& arguments,
              const char* name, const char* help, int (*run)(const MarkupArguments&)) {
  CLI::App& command = *markup.add_subcommand(name, help);
  command.add_option("FILE", arguments->file, "The document, - for standard input")->required();
  command.callback([arguments, &chosen, run] {
    chosen = [arguments, run] {
      try {
        return run(*arguments);
      } catch (const std::exception& failure) {
        WriteErrorLine(arguments->file + ": " + failure.what());
        return kFailure;
      }
    };
  });
  return command;
}

void AddKind(CLI::App& command, MarkupArguments& arguments, const char* usual) {
  command
      .add_option(
          "--dtd", arguments.kind,
          std::string("The document kind, ") + usual + " unless given: xml, html, xmlhtml or css")
      ->check(CLI::IsMember({"xml", "html", "xmlhtml", "css"}));
  command.parse_complete_callback([&arguments, usual] {
    if (arguments.kind.empty()) arguments.kind = usual;
  });
}

}  // namespace

void AddMarkup(CLI::App& program, Run& chosen) {
  const auto arguments = std::make_shared<MarkupArguments>();
  CLI::App& markup = *program.add_subcommand("markup", "Read, query and write XML, HTML and CSS");
  markup.require_subcommand(1);
  markup.footer(kExamples);
  CLI::App& write = Add(markup, chosen, arguments, "write",
                        "Write a document back, with all around its root", Write);
  AddKind(write, *arguments, "xml");
  CLI::App& query =
      Add(markup, chosen, arguments, "query", "Print the elements a path finds", Query);
  AddKind(query, *arguments, "xml");
  query.add_option("PATH", arguments->path, "Names with conditions, from the root element")
      ->required();
  query.add_option("--attribute", arguments->attribute,
                   "Print the values of this attribute instead, a line each");
  CLI::App& script = Add(markup, chosen, arguments, "script",
                         "Write client-side script that builds an element", Script);
  AddKind(script, *arguments, "html");
}

}  // namespace zr::cli
