// Expanding markers gives what replacing them one by one in the whole text gives. Input: lines of
// "name=text" up to an empty line, then the text.

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>

#include "fuzz/check.h"
#include "storage/marker_expansion.h"

namespace {

using Values = std::map<std::string, std::string, std::less<>>;

constexpr std::size_t kMaxRounds = 200;

std::string Lookup(const Values& values, std::string_view name) {
  const auto found = values.find(name);
  return found == values.end() ? std::string() : found->second;
}

// The slow and plain way. False when it did not come to an end.
bool ExpandOneByOne(const Values& values, std::string& text) {
  std::size_t position = 0;
  for (std::size_t round = 0; round < kMaxRounds; ++round) {
    const std::size_t open = text.find("[[", position);
    const std::size_t close = open == text.npos ? text.npos : text.find("]]", open + 2);
    if (close == text.npos) return true;
    text.replace(open, close + 2 - open,
                 Lookup(values, std::string_view(text).substr(open + 2, close - open - 2)));
    position = open;
  }
  return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view rest(reinterpret_cast<const char*>(data), size);
  Values values;
  while (!rest.empty()) {
    const std::string_view line = rest.substr(0, rest.find('\n'));
    rest.remove_prefix(line.size() < rest.size() ? line.size() + 1 : rest.size());
    const std::size_t equals = line.find('=');
    if (line.empty() || equals == line.npos) break;
    values.emplace(line.substr(0, equals), line.substr(equals + 1));
  }
  std::string slow(rest);
  const bool ends = ExpandOneByOne(values, slow);
  std::string fast(rest);
  const bool complete =
      zr::ExpandMarkers(fast, [&](std::string_view name) { return Lookup(values, name); });
  if (ends) {
    ZR_FUZZ_CHECK(complete);
    ZR_FUZZ_CHECK(fast == slow);
  }
  return 0;
}
