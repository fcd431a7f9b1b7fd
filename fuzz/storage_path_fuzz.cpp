// What was set under a dotted path is read back from it. Input: lines of a path, a tab and a value,
// set one after another in one store.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "fuzz/check.h"
#include "storage/xml_database.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view rest(reinterpret_cast<const char*>(data), size);
  ZrXMLDatabase database("quarn");
  while (!rest.empty()) {
    const std::string_view line = rest.substr(0, rest.find('\n'));
    rest.remove_prefix(line.size() < rest.size() ? line.size() + 1 : rest.size());
    const std::size_t tab = line.find('\t');
    const std::string path(line.substr(0, tab));
    const std::string value(tab == line.npos ? std::string_view() : line.substr(tab + 1));
    const std::string before = database.GetValue(path, "nothing");
    database.SetValue(path, value);
    // A path names a value when it has two pieces; in an attribute's name "=" would be taken for
    // the start of its value.
    const std::size_t lastDot = path.find_last_of('.', path.size() - (path.ends_with('.') ? 2 : 1));
    const bool names =
        path.size() > 1 && lastDot != path.npos && path.find('=', lastDot) == path.npos;
    if (names) {
      ZR_FUZZ_CHECK(database.GetValue(path, value + "?") == value);
      ZR_FUZZ_CHECK(database.EnsureValue(path, value + "?") == value);
    } else if (path.find('=') == path.npos) {
      ZR_FUZZ_CHECK(database.GetValue(path, "nothing") == before);
    }
  }
  return 0;
}
