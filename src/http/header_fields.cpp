#include "http/header_fields.h"

#include <algorithm>
#include <functional>
#include <limits>
#include <stdexcept>
#include <utility>

#include "base/text_cursor.h"

namespace {

// Up to that many are gone through.
constexpr std::size_t kFewLines = 16;

}  // namespace

ZrHeaderFields::ZrHeaderFields(const ZrHeaderFields& other) noexcept
    : store_(other.store_), shared_(true) {
  other.shared_.store(true, std::memory_order_relaxed);
}

ZrHeaderFields& ZrHeaderFields::operator=(const ZrHeaderFields& other) noexcept {
  ZrHeaderFields copy(other);
  return *this = std::move(copy);
}

ZrHeaderFields::ZrHeaderFields(ZrHeaderFields&& other) noexcept { *this = std::move(other); }

ZrHeaderFields& ZrHeaderFields::operator=(ZrHeaderFields&& other) noexcept {
  if (this == &other) return *this;
  store_ = std::move(other.store_);
  shared_.store(other.shared_.exchange(false, std::memory_order_relaxed),
                std::memory_order_relaxed);
  return *this;
}

ZrHeaderFields::Store& ZrHeaderFields::Writable() {
  if (!store_) {
    store_ = std::allocate_shared<Store>(ZrWorkbenchAllocator<Store>());
  } else if (shared_.load(std::memory_order_relaxed)) {
    const auto copy = std::allocate_shared<Store>(ZrWorkbenchAllocator<Store>());
    copy->text.Append(store_->text.Unread());
    copy->lines = store_->lines;
    copy->names = store_->names;
    store_ = copy;
  }
  shared_.store(false, std::memory_order_relaxed);
  return *store_;
}

// The value may be one of this object's own.
// The value may be one of this object's own.
void ZrHeaderFields::Append(std::string_view name, std::string_view value) {
  const std::string_view own = store_ ? store_->text.Unread() : std::string_view();
  if (std::less_equal<>()(own.data(), value.data()) &&
      std::less<>()(value.data(), own.data() + own.size()))
    return Append(name, std::string(value));
  Append(name, {&value, 1});
}

void ZrHeaderFields::Append(std::string_view name, std::span<const std::string_view> values) {
  std::size_t bytes = name.size();
  for (const std::string_view value : values) bytes += value.size();
  zr::TextCursor space(Space(bytes));
  Store& store = *store_;
  const Name entered({space.End(), name.size()}, Name(name).start);
  space.Add(name);
  std::size_t at = store.text.Size() + name.size();
  for (const std::string_view value : values) {
    space.Add(value);
    store.Enter(entered, at, value.size());
    at += value.size();
  }
  store.text.Commit(bytes);
}

char* ZrHeaderFields::Space(std::size_t bytes) {
  Store& store = Writable();
  constexpr std::size_t kMaxText = std::numeric_limits<std::uint32_t>::max();
  if (bytes > kMaxText - store.text.Size())
    throw std::length_error("more than 4 GiB of header fields");
  return store.text.Prepare(bytes).data();
}

void ZrHeaderFields::Enter(std::size_t nameSize, std::size_t valueSize) {
  Store& store = *store_;
  const std::size_t at = store.text.Size();
  store.Enter(Name(std::string_view(store.Text() + at, nameSize)), at + nameSize, valueSize);
  store.text.Commit(nameSize + valueSize);
}

// The name lies in the text's memory.
void ZrHeaderFields::Store::Enter(const Name& name, std::size_t valueAt, std::size_t valueSize) {
  names |= BitOf(name);
  const auto nameAt = static_cast<std::uint32_t>(name.text.data() - Text());
  const Line entered{name.start, nameAt, static_cast<std::uint32_t>(name.text.size()),
                     static_cast<std::uint32_t>(valueAt), static_cast<std::uint32_t>(valueSize)};
  if (lines.empty() || !(name < NameOf(lines.back()))) return lines.push_back(entered);
  lines.insert(std::upper_bound(lines.begin(), lines.end(), name,
                                [this](const Name& wanted, const Line& other) {
                                  return wanted < NameOf(other);
                                }),
               entered);
}

void ZrHeaderFields::Reserve(std::size_t bytes, std::size_t lines) {
  Store& store = Writable();
  store.text.Reserve(bytes);
  store.lines.reserve(lines);
}

// The first line whose name is not before that one.
std::size_t ZrHeaderFields::Store::LowerBound(const Name& name) const {
  const auto place = std::lower_bound(
      lines.begin(), lines.end(), name,
      [this](const Line& line, const Name& wanted) { return NameOf(line) < wanted; });
  return static_cast<std::size_t>(place - lines.begin());
}

std::size_t ZrHeaderFields::FindLine(const Name& name) const {
  const auto& lines = store_->lines;
  if (lines.size() <= kFewLines) {
    for (std::size_t index = 0; index < lines.size(); ++index)
      if (store_->NameOf(lines[index]) == name) return index;
    return kNowhere;
  }
  const std::size_t place = store_->LowerBound(name);
  return place != lines.size() && store_->NameOf(lines[place]) == name ? place : kNowhere;
}

bool ZrHeaderFields::ContainsPrefix(std::string_view prefix) const {
  if (!store_) return false;
  const std::size_t place = store_->LowerBound(Name(prefix));
  return place != store_->lines.size() &&
         store_->NameOf(store_->lines[place]).text.starts_with(prefix);
}

ZrHeaderFields::Values ZrHeaderFields::ValuesAt(std::size_t place) const {
  return (*const_iterator(store_.get(), place)).second;
}

std::size_t ZrHeaderFields::const_iterator::GroupEnd() const {
  const Name name = store_->NameOf(store_->lines[index_]);
  std::size_t end = index_ + 1;
  while (end < store_->lines.size() && store_->NameOf(store_->lines[end]) == name) ++end;
  return end;
}

ZrHeaderFields::Entry ZrHeaderFields::const_iterator::operator*() const {
  const Line* const lines = store_->lines.data() + index_;
  return {store_->NameOf(*lines).text, Values(store_->Text(), lines, GroupEnd() - index_)};
}

ZrHeaderFields::const_iterator& ZrHeaderFields::const_iterator::operator++() {
  index_ = GroupEnd();
  return *this;
}
