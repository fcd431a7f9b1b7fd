#include "markup/read_transaction.h"

#include <algorithm>
#include <string>

#include "base/line_writer.h"

bool ReadTransaction::More() {
  const std::size_t next = Offset(next_);
  const std::size_t furthest = Offset(furthest_);
  const bool more = reader_.More();
  Rebase(next, furthest);
  return more;
}

int ReadTransaction::Get(bool endAllowed) {
  const int byte = Peek();
  if (byte >= 0) {
    AdvanceCounting(next_ + 1);
    return byte;
  }
  if (!endAllowed)
    zr::WriteDiagnostic("reading EOF", "reading EOF is an error! ---> will become an exception");
  const std::size_t next = Offset(next_);
  const std::size_t furthest = Offset(furthest_);
  *window().MakeRoom() = static_cast<char>(byte);
  window().Filled(1);
  Rebase(next, furthest);
  AdvanceTo(next_ + 1);
  return byte;
}

void ReadTransaction::GiveBack(std::size_t count) {
  if (count > Offset(next_)) {
    zr::WriteDiagnostic("more given back than read",
                        "error! can't give more back than read---> will become an exception... " +
                            std::to_string(Offset(next_)) + " vs. " + std::to_string(count));
    return;
  }
  next_ -= count;
}

void ReadTransaction::AdvanceCounting(const char* place) {
  if (place > furthest_) {
    const char* const first = std::max(next_, furthest_);
    lineFeeds_ +=
        zr::CountLineFeeds(std::string_view(first, static_cast<std::size_t>(place - first)));
    furthest_ = place;
  }
  next_ = place;
}

std::string_view ReadTransaction::TakeLines(const zr::ByteSet& set) {
  const std::size_t start = Offset(next_);
  do {
    const char* p = next_;
    while (p != end_ && set.Has(*p)) ++p;
    AdvanceCounting(p);
  } while (next_ == end_ && More());
  return From(start);
}

namespace {

// Where the delimiter begins, from the given position on. Looks for its last byte, which is rarer
// in real text than the first one of "-->" and "*/".
std::size_t FindDelimiter(std::string_view text, std::string_view delimiter, std::size_t from) {
  const std::size_t lead = delimiter.size() - 1;
  for (std::size_t last = from + lead; last < text.size(); ++last) {
    last = text.find(delimiter.back(), last);
    if (last == std::string_view::npos) break;
    if (text.substr(last - lead, delimiter.size()) == delimiter) return last - lead;
  }
  return std::string_view::npos;
}

}  // namespace

std::optional<std::string_view> ReadTransaction::TakeThrough(std::string_view delimiter) {
  const std::size_t lead = delimiter.size() - 1;
  const std::size_t start = Offset(next_);
  std::size_t from = window().KnownFree(delimiter, start);
  for (;;) {
    const std::string_view unread(first_, Offset(end_));
    const std::size_t found = FindDelimiter(unread, delimiter, from);
    if (found != std::string_view::npos) {
      AdvanceCounting(first_ + found + delimiter.size());
      return unread.substr(start, found - start);
    }
    from = std::max(from, unread.size() - std::min(lead, unread.size()));
    if (More()) continue;
    window().NoteFutile(delimiter, start);
    next_ = furthest_ = end_;
    lineFeeds_ = window().LineFeeds(Offset(end_));  // counts what earlier attempts did not
    return std::nullopt;
  }
}
