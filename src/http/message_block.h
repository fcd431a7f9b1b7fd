#pragma once
// One form field or one part of a multipart body, and the indexes over them. A message head holds
// its blocks in arrival order at stable places; the indexes only point to them.

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "base/string_buffer.h"

/// A field of a form. Belongs to its message head; threads: as that head.
struct ZrHTTPMessageBlock {
  using Texts = std::map<std::string, std::string, std::less<>>;
  using Lists = std::map<std::string, std::vector<std::string>, std::less<>>;

  /// The bytes of the value; none for an empty part of a multipart body.
  std::unique_ptr<ZrStringBuf> content;
  /// The head lines of a multipart part: lower-case name -> values. Empty for other fields.
  Lists partHeaders;
  /// "name" is the field's name, "mimetype" the content type of its part.
  Texts attributes = {{"mimetype", "application/octet-stream"}, {"name", ""}};

  /// The "name" attribute.
  std::string_view Name() const { return attributes.find("name")->second; }
  /// The content as text, empty without content. Valid until the content changes.
  std::string_view Text() const { return content ? content->Unread() : std::string_view(); }
};

/// An index over blocks that their head owns: text key -> block, the last one of that key.
class ZrHTTPMessageBlockDisposition
    : public std::map<std::string, ZrHTTPMessageBlock*, std::less<>> {
 public:
  using std::map<std::string, ZrHTTPMessageBlock*, std::less<>>::map;
  virtual ~ZrHTTPMessageBlockDisposition() = default;
};

namespace zr {

/// The text of the block under that key, empty when there is none. Valid as long as the block.
inline std::string_view FieldText(const ZrHTTPMessageBlockDisposition& index,
                                  std::string_view key) {
  const auto found = index.find(key);
  return found == index.end() ? std::string_view() : found->second->Text();
}

}  // namespace zr
