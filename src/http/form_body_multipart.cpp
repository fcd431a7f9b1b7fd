// Multipart bodies. The delimiter is searched with a failure table (Knuth, Morris, Pratt), so that
// a body full of almost-delimiters costs no more than any other; where nothing has matched yet the
// search jumps to the next byte that can begin a delimiter. Each part is copied at most once.

#include <algorithm>
#include <cstring>
#include <vector>

#include "base/line_writer.h"
#include "base/trim.h"
#include "http/form_body.h"

namespace {

constexpr std::string_view kLineEnd = "\r\n";

// A part of that many bytes (64 KiB) need not be copied.
constexpr std::size_t kShownInPlace = std::size_t{64} * 1024;

class Finder {
 public:
  explicit Finder(std::string pattern) : pattern_(std::move(pattern)), back_(pattern_.size()) {
    for (std::size_t at = 1, matched = 0; at < pattern_.size(); ++at) {
      while (matched != 0 && pattern_[at] != pattern_[matched]) matched = back_[matched - 1];
      if (pattern_[at] == pattern_[matched]) ++matched;
      back_[at] = matched;
    }
  }

  std::size_t Size() const { return pattern_.size(); }

  // Where the pattern begins at or behind `from`, npos when it does not occur any more.
  std::size_t Find(std::string_view text, std::size_t from) const {
    std::size_t matched = 0;
    for (std::size_t at = from; at < text.size(); ++at) {
      if (matched == 0) {
        at = text.find(pattern_.front(), at);
        if (at == std::string_view::npos) return at;
      }
      while (matched != 0 && text[at] != pattern_[matched]) matched = back_[matched - 1];
      if (text[at] == pattern_[matched]) ++matched;
      if (matched == pattern_.size()) return at + 1 - matched;
    }
    return std::string_view::npos;
  }

 private:
  std::string pattern_;
  std::vector<std::size_t> back_;  // length of the longest border of each prefix
};

// The name="..." parameter of a content disposition, empty when there is none. The pieces lie
// between spaces; the first one counts, since a file name behind it may hold anything.
std::string_view DispositionName(std::string_view value) {
  const std::size_t semicolon = value.find(';');
  if (semicolon == std::string_view::npos) return {};
  std::string_view rest = value.substr(semicolon + 1);
  while (!rest.empty()) {
    const std::size_t end = rest.find(' ');
    std::string_view piece = rest.substr(0, end);
    rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
    if (!piece.starts_with("name=")) continue;
    piece.remove_prefix(5);
    if (piece.starts_with('"')) {
      piece.remove_prefix(1);
      return piece.substr(0, piece.find('"'));
    }
    return piece.substr(0, piece.find(';'));
  }
  return {};
}

void ParsePartLine(ZrHTTPMessageBlock& block, std::string_view line) {
  const std::size_t colon = line.find(':');
  if (colon == std::string_view::npos) {
    zr::WriteDiagnostic("oh oh", "oh oh ... problem...");
    return;
  }
  std::string name(zr::Trim(line.substr(0, colon)));
  std::transform(name.begin(), name.end(), name.begin(),
                 [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c | 0x20) : c; });
  const std::string_view value = zr::Trim(line.substr(colon + 1));
  if (name.empty() || value.empty()) return;
  if (name == "content-type") block.attributes["mimetype"] = value;
  if (name == "content-disposition") {
    const std::string_view field = DispositionName(value);
    if (!field.empty()) block.attributes["name"] = field;
  }
  block.partHeaders[name].emplace_back(value);
}

// A large part of a body that lies in a file is shown there: the message has both, and the body
// stays where it is as long as the blocks.
std::unique_ptr<ZrStringBuf> Content(std::string_view bytes, bool inPlace) {
  if (!inPlace || bytes.size() < kShownInPlace)
    return std::make_unique<ZrStringBuf>(std::string(bytes));
  const std::shared_ptr<const void> nobody;
  return std::make_unique<ZrStringBuf>(bytes, std::shared_ptr<const void>(nobody, bytes.data()));
}

// `part` is everything between two delimiters; `linesLeft` counts down over all parts of the body.
void ParsePart(ZrHTTPMessageBlock& block, std::string_view part, bool inPlace,
               std::size_t& linesLeft) {
  // What stands behind the delimiter on its line is skipped.
  std::size_t start = part.find(kLineEnd);
  while (start != std::string_view::npos) {
    start += kLineEnd.size();
    const std::size_t end = part.find(kLineEnd, start);
    if (end == std::string_view::npos) return;
    if (end == start) {
      std::string_view content = part.substr(end + kLineEnd.size());
      // The last line end belongs to the delimiter, also where it is the one that ended the head.
      if (content.ends_with(kLineEnd)) content.remove_suffix(kLineEnd.size());
      if (!content.empty()) block.content = Content(content, inPlace);
      return;
    }
    if (linesLeft != 0) {
      --linesLeft;
      ParsePartLine(block, part.substr(start, end - start));
    }
    start = end;
  }
}

}  // namespace

void zr::AppendMultipart(ZrXHeader& head, std::string_view body, std::string_view boundary) {
  const Finder delimiter("--" + std::string(boundary));
  std::size_t linesLeft = kMaxPartHeadLines;
  // The bytes of a mapped file, not ours.
  const bool inPlace =
      head.body && head.body->Unread().data() == body.data() && head.body->HeapBytes() == 0;
  std::size_t current = delimiter.Find(body, 0);
  while (current != std::string_view::npos && head.blocks.size() < kMaxFormFields) {
    const std::size_t start = current + delimiter.Size();
    current = delimiter.Find(body, start);
    if (current == std::string_view::npos) return;
    ParsePart(head.AddBlock(), body.substr(start, current - start), inPlace, linesLeft);
  }
}
