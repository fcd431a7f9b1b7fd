#include "markup/read_window.h"

#include <algorithm>
#include <cstring>

std::uint64_t zr::CountLineFeeds(std::string_view text) {
  std::uint64_t count = 0;
  const char* p = text.data();
  const char* const end = p + text.size();
  while (p != end) {
    p = static_cast<const char*>(std::memchr(p, '\n', static_cast<std::size_t>(end - p)));
    if (p == nullptr) break;
    ++count;
    ++p;
  }
  return count;
}

char* ZrReadWindow::MakeRoom() {
  if (end_ == capacity_) {
    const std::size_t unread = Unread();
    if (unread > begin_ || capacity_ == 0) {
      // Mostly unread: double. Else as many bytes were consumed since the last move as move now.
      const std::size_t capacity = std::max(kBlock, 2 * capacity_);
      auto grown = std::unique_ptr<char[]>(new char[capacity]);
      if (unread != 0) std::memcpy(grown.get(), data(), unread);
      buffer_ = std::move(grown);
      capacity_ = capacity;
    } else {
      std::memmove(buffer_.get(), data(), unread);
    }
    offset_ += begin_;
    begin_ = 0;
    end_ = unread;
  }
  return buffer_.get() + end_;
}

void ZrReadWindow::NoteFutile(std::string_view delimiter, std::size_t position) {
  // A delimiter may lie across the end of the window: its last bytes are searched again.
  const std::uint64_t from = Consumed() + position;
  const std::uint64_t to = std::max(from, Consumed() + Unread() - (delimiter.size() - 1));
  for (Futile& f : futile_) {
    if (f.delimiter != delimiter) continue;
    f.from = from;
    f.to = to;
    return;
  }
  futile_.push_back({delimiter, from, to});
}

std::size_t ZrReadWindow::KnownFreeSlow(std::string_view delimiter, std::size_t position) const {
  const std::uint64_t offset = Consumed() + position;
  for (const Futile& f : futile_)
    if (f.delimiter == delimiter && f.from <= offset && offset < f.to)
      return static_cast<std::size_t>(f.to - Consumed());
  return position;
}

std::uint64_t ZrReadWindow::LineFeeds(std::size_t count) {
  const std::string_view unread(data(), Unread());
  if (count < unread.size()) return zr::CountLineFeeds(unread.substr(0, count));
  const auto first = counting_ ? static_cast<std::size_t>(countedTo_ - Consumed()) : 0;
  counted_ = (counting_ ? counted_ : 0) + zr::CountLineFeeds(unread.substr(first));
  countedTo_ = Consumed() + unread.size();
  counting_ = true;
  return counted_;
}

void ZrReadWindow::Uncount(std::size_t count) {
  const std::uint64_t covered = std::min<std::uint64_t>(count, countedTo_ - Consumed());
  counted_ -= zr::CountLineFeeds(std::string_view(data(), static_cast<std::size_t>(covered)));
  counting_ = countedTo_ > Consumed() + count;
}
