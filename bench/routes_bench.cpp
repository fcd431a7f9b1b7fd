// How long it takes to find the route of a request, in a table of one route and in one of
// thousands.

#include <benchmark/benchmark.h>

#include <string>

#include "embed/route_table.h"

namespace {

// A program's routes: things with a number and what can be done to them.
void Fill(ZrRouteTable& table, std::int64_t routes) {
  const auto nothing = [](const velkoro::Request&, velkoro::Answer&) {};
  for (std::int64_t i = 0; i < routes; ++i) {
    const std::string thing = "/api/things" + std::to_string(i / 4);
    constexpr const char* kRest[] = {"", "/{id}", "/{id}/parts", "/{id}/parts/{part}"};
    table.Add("GET", thing + kRest[i % 4], nothing);
  }
}

void FindRoute(benchmark::State& state, const char* path, bool found) {
  ZrRouteTable table;
  Fill(table, state.range(0));
  const std::string asked = path;
  for (auto _ : state) {
    const ZrRouteTable::Match match = table.Find(asked, ZrMethod::kGet);
    if ((match.route != nullptr) != found) state.SkipWithError("the wrong route");
    benchmark::DoNotOptimize(match);
  }
}

BENCHMARK_CAPTURE(FindRoute, literal, "/api/things0", true)->Arg(1)->Arg(1000)->Arg(10'000);
BENCHMARK_CAPTURE(FindRoute, open, "/api/things0/17/parts/4", true)->Arg(4)->Arg(1000)->Arg(10'000);
BENCHMARK_CAPTURE(FindRoute, none, "/api/nothing/of/that", false)->Arg(1)->Arg(1000)->Arg(10'000);

}  // namespace
