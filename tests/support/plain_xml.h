#pragma once
// Makes real XML files readable for a reader that has no document type line and no ":" in names.

#include <string>
#include <string_view>

namespace zrtest {

/// Takes out the document type line, and every ":" in the names of elements and attributes;
/// comments, attribute values and text stay as they are.
inline std::string PlainXml(std::string_view xml) {
  std::string plain;
  plain.reserve(xml.size());
  const auto through = [&xml](std::size_t from, std::string_view end) {
    const std::size_t stop = xml.find(end, from);
    return stop == std::string_view::npos ? xml.size() : stop + end.size();
  };
  bool inTag = false;
  char quote = 0;
  for (std::size_t at = 0; at < xml.size();) {
    const std::string_view rest = xml.substr(at);
    if (!inTag && (rest.starts_with("<!--") || rest.starts_with("<?"))) {
      const std::size_t end = through(at, rest[1] == '?' ? "?>" : "-->");
      plain.append(xml.substr(at, end - at));
      at = end;
    } else if (!inTag && rest.starts_with("<!DOCTYPE")) {
      at = xml[xml.find_first_of("[>", at)] == '[' ? through(at, "]>") : through(at, ">");
    } else {
      const char c = xml[at++];
      if (!inTag || quote != 0 || c != ':') plain.push_back(c);
      if (inTag && (c == quote || (quote == 0 && (c == '"' || c == '\'')))) {
        quote = quote == 0 ? c : 0;
      } else if (quote == 0 && (c == '<' || (inTag && c == '>'))) {
        inTag = c == '<';
      }
    }
  }
  return plain;
}

}  // namespace zrtest
