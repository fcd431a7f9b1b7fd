#include "markup/read_transaction.h"

#include <algorithm>
#include <iostream>

int ReadTransaction::Get(bool endAllowed) {
  const int byte = Peek();
  if (byte >= 0) {
    AdvanceCounting(1);
    return byte;
  }
  if (!endAllowed) {
    std::cerr << "reading EOF is an error! ---> will become an exception\n";
  }
  *window().MakeRoom() = static_cast<char>(byte);
  window().Filled(1);
  Advance(1);
  return byte;
}

void ReadTransaction::GiveBack(std::size_t count) {
  if (count > position_) {
    std::cerr << "error! can't give more back than read---> will become an exception... "
              << position_ << " vs. " << count << '\n';
    return;
  }
  position_ -= count;
}

void ReadTransaction::AdvanceCounting(std::size_t count) {
  const std::size_t end = position_ + count;
  if (end > taken_) {
    const std::size_t first = std::max(position_, taken_);
    lineFeeds_ += zr::CountLineFeeds(std::string_view(window().data() + first, end - first));
    taken_ = end;
  }
  position_ = end;
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
  std::size_t from = window().KnownFree(delimiter, position_);
  for (;;) {
    const std::string_view unread(window().data(), window().Unread());
    const std::size_t found = FindDelimiter(unread, delimiter, from);
    if (found != std::string_view::npos) {
      const std::size_t count = found - position_;
      AdvanceCounting(count + delimiter.size());
      return std::string_view(window().data() + position_ - delimiter.size() - count, count);
    }
    from = std::max(from, unread.size() - std::min(lead, unread.size()));
    if (reader_.More()) continue;
    window().NoteFutile(delimiter, position_);
    position_ = taken_ = window().Unread();
    uncounted_ = true;
    return std::nullopt;
  }
}
