// What a page costs: building it from element classes, writing it, reading one, and the texts that
// stored pages and scripts are made of.

#include <benchmark/benchmark.h>

#include <memory>
#include <sstream>
#include <string>

#include "html/command_compiler.h"
#include "html/error_page_404.h"
#include "html/html_document.h"
#include "html/html_dtd.h"
#include "html/html_elements.h"
#include "html/html_text.h"
#include "html/plain_elements.h"
#include "markup/parse.h"

namespace {

/// A page with a table of so many rows of three cells.
std::unique_ptr<ZrHTML_Document2> TablePage(std::int64_t rows) {
  auto page = std::make_unique<ZrHTML_Document2>();
  page->AddToHead(std::make_unique<ZrHTML_title2>("Lamps"));
  auto table = std::make_unique<ZrHTML_table2>();
  for (std::int64_t row = 0; row < rows; ++row) {
    ZrHTML_tr2* const line = table->Adopt(std::make_unique<ZrHTML_tr2>());
    line->id.SetFromString("row");
    for (const char* text : {"hall", "40 W", "on since nine o'clock"})
      line->Adopt(std::make_unique<ZrHTML_td2>())->Adopt(std::make_unique<ZrHTML_text2>(text));
  }
  page->AddToBody(std::move(table));
  return page;
}

void BuildPage(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(TablePage(state.range(0)));
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BuildPage)->Arg(10)->Arg(1000);

void WritePage(benchmark::State& state) {
  const auto page = TablePage(state.range(0));
  std::size_t size = 0;
  for (auto _ : state) size = page->ToText().size();
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(size));
}
BENCHMARK(WritePage)->Arg(10)->Arg(1000);

void PageToScript(benchmark::State& state) {
  const auto page = TablePage(state.range(0));
  std::size_t size = 0;
  for (auto _ : state) size = page->ToScript().size();
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(size));
}
BENCHMARK(PageToScript)->Arg(1000);

void ReadPage(benchmark::State& state) {
  const std::string text = TablePage(state.range(0))->ToText();
  for (auto _ : state) {
    std::istringstream stream(text);
    std::string error;
    // The document type line stands first and is what comes back; the whole page was read.
    benchmark::DoNotOptimize(zr::ParseStream(stream, "html", error, zr::HtmlDocumentKinds()));
    if (!error.empty()) state.SkipWithError(error.c_str());
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(text.size()));
}
BENCHMARK(ReadPage)->Arg(10)->Arg(1000)->Arg(10000);

void ReadStyleSheet(benchmark::State& state) {
  std::string text;
  for (int i = 0; i < 1000; ++i) text += "#lamp .on, p { color: red; margin: 0 }\n";
  for (auto _ : state) {
    std::istringstream stream(text);
    std::string error;
    benchmark::DoNotOptimize(zr::ParseStream(stream, "css", error, zr::HtmlDocumentKinds()));
    if (!error.empty()) state.SkipWithError(error.c_str());
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(text.size()));
}
BENCHMARK(ReadStyleSheet);

void ErrorPage(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(ZrHTML_ErrorMsg404().ToText());
}
BENCHMARK(ErrorPage);

void Animate(benchmark::State& state) {
  const std::string command = "!linearanimation(.lamp,3s,infinite," +
                              std::to_string(state.range(0)) + ",opacity: 1;,opacity: 0;,5)";
  std::size_t size = 0;
  for (auto _ : state) size = zr::EvaluateCommand(command).size();
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(size));
}
BENCHMARK(Animate)->Arg(10)->Arg(10000);

}  // namespace
