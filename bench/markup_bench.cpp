// Reading, reading with a visit to every node, and writing of documents, beside three XML libraries
// in their default settings: bytes per second, and the memory of the tree per byte of input. Real
// files come from the Debian packages shared-mime-info, xkb-data and iso-codes; a file that is not
// installed is left out.

#include <benchmark/benchmark.h>
#include <libxml/parser.h>
#include <libxml/tree.h>
#include <malloc.h>
#include <tinyxml2.h>

#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <pugixml.hpp>
#include <sstream>
#include <streambuf>
#include <string>

#include "markup/parse.h"
#include "tests/support/plain_xml.h"

namespace {

// A document of records as configuration and export files hold them.
std::string Generated(std::size_t size) {
  std::string xml = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<records>\n";
  for (std::size_t i = 0; xml.size() < size; ++i) {
    const std::string n = std::to_string(i);
    xml += "  <record id=\"" + n + "\" kind=\"measurement\" unit='mm'>\n    <name>Sensor number " +
           n + " in hall " + std::to_string(i % 97) + "</name>\n    <value>" +
           std::to_string(i * 7919 % 10007) + ".25</value>\n    <checked/>\n  </record>\n";
  }
  return xml + "</records>\n";
}

const std::map<std::string, std::string>& Documents() {
  static const std::map<std::string, std::string> documents = [] {
    std::map<std::string, std::string> all;
    const std::map<std::string, std::string> files = {
        {"mime", "/usr/share/mime/packages/freedesktop.org.xml"},
        {"xkb", "/usr/share/X11/xkb/rules/evdev.xml"},
        {"iso", "/usr/share/xml/iso-codes/iso_639-3.xml"}};
    for (const auto& [name, path] : files) {
      std::ifstream file(path, std::ios::binary);
      const std::string text{std::istreambuf_iterator<char>(file), {}};
      if (!text.empty()) all[name] = zrtest::PlainXml(text);
    }
    all["1MB"] = Generated(1'000'000);
    all["10MB"] = Generated(10'000'000);
    all["100MB"] = Generated(100'000'000);
    return all;
  }();
  return documents;
}

struct MemoryInput : std::streambuf {
  explicit MemoryInput(const std::string& text) {
    char* const first = const_cast<char*>(text.data());
    setg(first, first, first + text.size());
  }
};

struct StringOutput : std::streambuf {
  std::string text;
  std::streamsize xsputn(const char* bytes, std::streamsize count) override {
    text.append(bytes, static_cast<std::size_t>(count));
    return count;
  }
  int overflow(int byte) override {
    if (byte >= 0) text.push_back(static_cast<char>(byte));
    return 0;
  }
};

// The nodes of the tree below one, visited in document order.
template <class Node, class First, class Next, class Parent>
std::size_t CountNodes(Node top, First first, Next next, Parent parent) {
  std::size_t count = 0;
  for (Node at = top;;) {
    ++count;
    if (const Node child = first(at)) {
      at = child;
      continue;
    }
    while (at != top && !next(at)) at = parent(at);
    if (at == top) return count;
    at = next(at);
  }
}

// Each library: a document type, Read, Walk and Write.

struct Velkoro {
  using Document = std::unique_ptr<ZrXMLComplexElement>;
  static std::size_t Walk(const Document& document) {
    using Node = const ZrXMLComplexElement*;
    return CountNodes<Node>(
        document.get(), [](Node node) { return node->Children().front(); },
        [](Node node) { return node->NextSibling(); }, [](Node node) { return node->Parent(); });
  }
  static Document Read(const std::string& xml) {
    MemoryInput input(xml);
    std::istream stream(&input);
    std::string error;
    Document root = zr::ParseStream(stream, "xml", error);
    if (root == nullptr) throw std::runtime_error(error);
    return root;
  }
  static std::string Write(const Document& document) {
    StringOutput output;
    std::ostream stream(&output);
    document->Write(stream);
    return std::move(output.text);
  }
};

struct Pugixml {
  using Document = std::unique_ptr<pugi::xml_document>;
  static std::size_t Walk(const Document& document) {
    using Node = pugi::xml_node;
    return CountNodes<Node>(
        *document, [](Node node) { return node.first_child(); },
        [](Node node) { return node.next_sibling(); }, [](Node node) { return node.parent(); });
  }
  static Document Read(const std::string& xml) {
    auto document = std::make_unique<pugi::xml_document>();
    if (!document->load_buffer(xml.data(), xml.size())) throw std::runtime_error("pugixml");
    return document;
  }
  static std::string Write(const Document& document) {
    struct Writer : pugi::xml_writer {
      std::string text;
      void write(const void* bytes, std::size_t count) override {
        text.append(static_cast<const char*>(bytes), count);
      }
    } writer;
    document->save(writer, "", pugi::format_raw);
    return std::move(writer.text);
  }
};

struct Tinyxml2 {
  using Document = std::unique_ptr<tinyxml2::XMLDocument>;
  static std::size_t Walk(const Document& document) {
    using Node = const tinyxml2::XMLNode*;
    return CountNodes<Node>(
        document.get(), [](Node node) { return node->FirstChild(); },
        [](Node node) { return node->NextSibling(); }, [](Node node) { return node->Parent(); });
  }
  static Document Read(const std::string& xml) {
    auto document = std::make_unique<tinyxml2::XMLDocument>();
    if (document->Parse(xml.data(), xml.size()) != tinyxml2::XML_SUCCESS)
      throw std::runtime_error("tinyxml2");
    return document;
  }
  static std::string Write(const Document& document) {
    tinyxml2::XMLPrinter printer(nullptr, true);
    document->Print(&printer);
    return std::string(printer.CStr(), static_cast<std::size_t>(printer.CStrSize() - 1));
  }
};

struct Libxml2 {
  struct Free {
    void operator()(xmlDoc* document) const { xmlFreeDoc(document); }
  };
  using Document = std::unique_ptr<xmlDoc, Free>;
  static std::size_t Walk(const Document& document) {
    using Node = xmlNode*;
    return CountNodes<Node>(
        xmlDocGetRootElement(document.get()), [](Node node) { return node->children; },
        [](Node node) { return node->next; }, [](Node node) { return node->parent; });
  }
  static Document Read(const std::string& xml) {
    Document document(
        xmlReadMemory(xml.data(), static_cast<int>(xml.size()), nullptr, nullptr, XML_PARSE_HUGE));
    if (document == nullptr) throw std::runtime_error("libxml2");
    return document;
  }
  static std::string Write(const Document& document) {
    xmlChar* text = nullptr;
    int size = 0;
    xmlDocDumpMemory(document.get(), &text, &size);
    std::string written(reinterpret_cast<const char*>(text), static_cast<std::size_t>(size));
    xmlFree(text);
    return written;
  }
};

std::size_t HeapInUse() {
  const struct mallinfo2 heap = mallinfo2();
  return heap.uordblks + heap.hblkhd;
}

template <class Library>
void Read(benchmark::State& state, const std::string& xml) {
  const std::size_t before = HeapInUse();
  double perByte = 0;
  {
    const auto document = Library::Read(xml);
    perByte = static_cast<double>(HeapInUse() - before) / static_cast<double>(xml.size());
  }
  // Reading and freeing: a tree is not read to be kept forever.
  for (auto _ : state) benchmark::DoNotOptimize(Library::Read(xml));
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(xml.size()));
  state.counters["tree_bytes_per_byte"] = perByte;
}

template <class Library>
void Walk(benchmark::State& state, const std::string& xml) {
  std::size_t nodes = 0;
  for (auto _ : state) benchmark::DoNotOptimize(nodes = Library::Walk(Library::Read(xml)));
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(xml.size()));
  state.counters["nodes_per_kilobyte"] =
      1000 * static_cast<double>(nodes) / static_cast<double>(xml.size());
}

template <class Library>
void Write(benchmark::State& state, const std::string& xml) {
  const auto document = Library::Read(xml);
  std::size_t written = 0;
  for (auto _ : state) written += Library::Write(document).size();
  state.SetBytesProcessed(static_cast<std::int64_t>(written));
}

template <class Library>
void Register(const std::string& library) {
  for (const auto& [name, xml] : Documents()) {
    const std::string& text = xml;
    benchmark::RegisterBenchmark(("read/" + name + "/" + library).c_str(),
                                 [&text](benchmark::State& state) { Read<Library>(state, text); });
    benchmark::RegisterBenchmark(("walk/" + name + "/" + library).c_str(),
                                 [&text](benchmark::State& state) { Walk<Library>(state, text); });
    benchmark::RegisterBenchmark(("write/" + name + "/" + library).c_str(),
                                 [&text](benchmark::State& state) { Write<Library>(state, text); });
  }
}

}  // namespace

int main(int argc, char** argv) {
  Register<Velkoro>("velkoro");
  Register<Pugixml>("pugixml");
  Register<Tinyxml2>("tinyxml2");
  Register<Libxml2>("libxml2");
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  xmlCleanupParser();
}
