#pragma once
// Makes real XML files readable for a reader that has no document type line and no ":" in names.

#include <string>
#include <string_view>

namespace zr_test {

/// Takes out the document type line, and every ":" in the names of elements and attributes;
/// comments, attribute values and text stay as they are.
inline std::string PlainXml(std::string_view xml) {
  std::string plain;
  plain.reserve(xml.size());
  const auto copyThrough = [&](std::string_view end) {
    const std::size_t stop = xml.find(end);
    const std::size_t count = stop == std::string_view::npos ? xml.size() : stop + end.size();
    plain.append(xml.substr(0, count));
    xml.remove_prefix(count);
  };
  while (!xml.empty()) {
    if (xml.starts_with("<!--")) {
      copyThrough("-->");
    } else if (xml.starts_with("<?")) {
      copyThrough("?>");
    } else if (xml.starts_with("<!DOCTYPE")) {
      const std::size_t bracket = xml.find_first_of("[>");
      const std::size_t end = xml[bracket] == '[' ? xml.find("]>") + 2 : bracket + 1;
      xml.remove_prefix(end);
    } else if (xml.front() == '<') {
      char quote = 0;
      for (bool inside = true; inside && !xml.empty(); xml.remove_prefix(1)) {
        const char c = xml.front();
        if (quote == 0 && c == ':') continue;
        if (quote == 0 && (c == '"' || c == '\'')) {
          quote = c;
        } else if (c == quote) {
          quote = 0;
        }
        inside = quote != 0 || c != '>';
        plain.push_back(c);
      }
    } else {
      plain.push_back(xml.front());
      xml.remove_prefix(1);
    }
  }
  return plain;
}

}  // namespace zr_test
