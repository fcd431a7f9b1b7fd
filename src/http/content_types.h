#pragma once
// The media types of files, by the extensions of their names (RFC 9110, 8.3). Types of text say
// that it is UTF-8.

#include <functional>
#include <map>
#include <string>
#include <string_view>

namespace zr {

/// The type built in for an extension (lower case, without the dot); empty for an unknown one.
std::string_view KnownContentType(std::string_view extension);

}  // namespace zr

/// The types of one server: set ones before built-in ones before those of the system's list.
/// Threads: any, once nothing is added any more.
class ZrContentTypes {
 public:
  /// Files of that extension (in any case, with or without its dot) have that type. A text type
  /// without parameters gets its charset. No, and nothing is set, when either text is malformed.
  [[nodiscard]] bool Set(std::string_view extension, std::string_view type);
  /// Adds what the text of a mime.types file (lines of a type and its extensions) knows beyond the
  /// built-in types and what was added before. Malformed lines are skipped.
  void AddFrom(std::string_view mimeTypes);

  /// The type of a file by its path: "application/octet-stream" when nothing else is known. Valid
  /// as long as this object does not change.
  std::string_view TypeOf(std::string_view path) const;

 private:
  std::map<std::string, std::string, std::less<>> own_;  // by extension
};
