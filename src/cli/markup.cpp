// velkoro markup: reads a document and writes it back, looks paths up in it or turns it into
// script.

#include <exception>
#include <memory>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "cli/command.h"
#include "html/html_document.h"
#include "html/html_dtd.h"
#include "markup/element_reader_stream.h"
#include "markup/parse.h"

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

// A document that was read.
class Document {
 public:
  explicit Document(const MarkupArguments& arguments)
      : stream_(ReadInput(arguments.file)), reader_(stream_, HtmlDocumentKinds()) {
    Parse(reader_.Splitter(), reader_, arguments.kind, false);
  }

  ZrXMLGenericElement& Top() { return *reader_.Splitter().top; }
  /// The first element; null when there is none. Text and the type line of a page are none.
  ZrXMLGenericElement* Root() {
    for (ZrXMLComplexElement* node : Top().Children()) {
      ZrXMLGenericElement* const element = node->AsGeneric();
      if (element != nullptr && element->OwnLine() && !element->IsTextNode() &&
          dynamic_cast<ZrHTML_Doctype2*>(element) == nullptr)
        return element;
    }
    return nullptr;
  }

 private:
  std::istringstream stream_;
  ZrDTDElementReaderStream reader_;
};

int Write(const MarkupArguments& arguments) {
  Document document(arguments);
  std::ostringstream out;
  for (const ZrXMLComplexElement* node : document.Top().Children()) node->Write(out);
  return Print(std::move(out).str());
}

int Query(const MarkupArguments& arguments) {
  Document document(arguments);
  ZrXMLGenericElement* const root = document.Root();
  if (root == nullptr) return kFailure;
  std::ostringstream out;
  bool found = false;
  const auto elements = root->Query(arguments.path);
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
  return found ? Print(std::move(out).str()) : kFailure;
}

int Script(const MarkupArguments& arguments) {
  Document document(arguments);
  const auto* const element = dynamic_cast<ZrHTML_BaseElement2*>(document.Root());
  if (element == nullptr) throw std::runtime_error("no HTML element to make a script of");
  return Print(element->ToScript());
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
        PrintFault(arguments->file, failure.what());
        return kFailure;
      }
    };
  });
  return command;
}

// The kinds in which the command can find something, the usual one first.
void AddKind(CLI::App& command, MarkupArguments& arguments, const std::vector<std::string>& kinds) {
  command
      .add_option("--dtd", arguments.kind, "The document kind, " + kinds.front() + " unless given")
      ->check(CLI::IsMember(kinds));
  command.parse_complete_callback([&arguments, usual = kinds.front()] {
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
  AddKind(write, *arguments, {"xml", "html", "xmlhtml", "css"});
  CLI::App& query =
      Add(markup, chosen, arguments, "query", "Print the elements a path finds", Query);
  AddKind(query, *arguments, {"xml", "html", "xmlhtml"});
  query.add_option("PATH", arguments->path, "Names with conditions, from the root element")
      ->required();
  query.add_option("--attribute", arguments->attribute,
                   "Print the values of this attribute instead, a line each");
  CLI::App& script = Add(markup, chosen, arguments, "script",
                         "Write client-side script that builds an element", Script);
  AddKind(script, *arguments, {"html", "xmlhtml"});
}

}  // namespace zr::cli
