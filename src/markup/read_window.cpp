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
    begin_ = 0;
    end_ = unread;
  }
  return buffer_.get() + end_;
}

void ZrReadWindow::NoteFutile(std::string_view delimiter, std::size_t position) {
  // A delimiter may lie across the end of the window: its last bytes are searched again.
  const std::uint64_t from = consumed_ + position;
  const std::uint64_t to = std::max(from, consumed_ + Unread() - (delimiter.size() - 1));
  for (Futile& f : futile_) {
    if (f.delimiter != delimiter) continue;
    f.from = from;
    f.to = to;
    return;
  }
  futile_.push_back({delimiter, from, to});
}

std::size_t ZrReadWindow::KnownFreeSlow(std::string_view delimiter, std::size_t position) const {
  const std::uint64_t offset = consumed_ + position;
  for (const Futile& f : futile_) {
    if (f.delimiter == delimiter && f.from <= offset && offset < f.to) {
      return static_cast<std::size_t>(f.to - consumed_);
    }
  }
  return position;
}

std::uint64_t ZrReadWindow::LineFeeds(std::size_t count) {
  const std::string_view unread(data(), Unread());
  if (count < unread.size()) return zr::CountLineFeeds(unread.substr(0, count));
  const std::uint64_t end = consumed_ + unread.size();
  const bool known = countedTo_ > consumed_;
  const auto first = known ? static_cast<std::size_t>(countedTo_ - consumed_) : 0;
  counted_ = (known ? counted_ : 0) + zr::CountLineFeeds(unread.substr(first));
  countedTo_ = end;
  return counted_;
}

void ZrReadWindow::Uncount(std::size_t count) {
  const std::uint64_t covered = std::min<std::uint64_t>(count, countedTo_ - consumed_);
  counted_ -= zr::CountLineFeeds(std::string_view(data(), static_cast<std::size_t>(covered)));
}
