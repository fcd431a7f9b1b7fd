// Query paths: the lookup finds what a plain recursion over the steps of the path finds.

#include <algorithm>
#include <sstream>
#include <string>
#include <string_view>

#include "base/exception.h"
#include "fuzz/check.h"
#include "markup/parse.h"

namespace {

constexpr std::size_t kMaxPath = 200;  // the recursion's depth and its copies

// Finds where the condition that begins at `path` ends and what it says.
std::size_t ReadCondition(std::string_view path, std::string& name, std::string& value) {
  bool quoted = false;
  bool escaped = false;
  bool inValue = false;
  std::size_t i = 0;
  for (; i < path.size(); ++i) {
    const char c = path[i];
    if (!escaped && !quoted && c == ']') break;
    if (!escaped && c == '"') {
      quoted = !quoted;
      continue;
    }
    if (!escaped && c == '\\') {
      escaped = quoted;
      continue;
    }
    escaped = false;
    if (c == '=') {
      inValue = inValue || !quoted;
      continue;
    }
    (inValue ? value : name) += c;
  }
  return i;
}

void Find(ZrXMLGenericElement& from, std::string_view path, ZrXMLElementList& found) {
  if (path.empty() || found.size() > ZrXMLGenericElement::kMaxQueryResults / 1000) return;
  const std::size_t end = path.find_first_of(".[");
  ZrXMLElementList named;
  from.FindElementsByName(path.substr(0, end), named, 1);
  if (end == std::string_view::npos) {
    found.insert(found.end(), named.begin(), named.end());
    return;
  }
  std::string_view rest = path.substr(end + 1);
  if (path[end] == '.') {
    for (ZrXMLGenericElement* element : named) Find(*element, rest, found);
    return;
  }
  std::string name;
  std::string value;
  const std::size_t bracket = ReadCondition(rest, name, value);
  if (name.empty()) return;
  const bool last = bracket + 1 >= rest.size();
  for (ZrXMLGenericElement* element : named) {
    if (value.empty() ? !element->HasAttribute(name) : !element->AttributeEquals(name, value))
      continue;
    if (last)
      found.push_back(element);
    else
      Find(*element, rest.substr(bracket + 2), found);
  }
}

ZrXMLGenericElement& Tree() {
  static const std::unique_ptr<ZrXMLComplexElement> tree = [] {
    std::istringstream stream(
        "<a x='1'><a y='.'/><b x=']' y=\"a=b\"><c z='\\'/><b/></b>text<b x='1'><c z/></b></a>");
    std::string error;
    return zr::ParseStream(stream, "xml", error);
  }();
  return *tree->AsGeneric();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string path(reinterpret_cast<const char*>(data), std::min(size, kMaxPath));
  try {
    const auto list = Tree().Query(path);
    if (list->size() > 1000) return 0;
    ZrXMLElementList expected;
    Find(Tree(), path, expected);
    ZR_FUZZ_CHECK(*list == expected);
  } catch (const ZrException&) {
    // More results than a list may hold.
  }
  return 0;
}
