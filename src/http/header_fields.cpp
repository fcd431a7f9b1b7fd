#include "http/header_fields.h"

#include <algorithm>
#include <limits>
#include <stdexcept>
#include <utility>

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
  if (!store_)
    store_ = std::allocate_shared<Store>(ZrWorkbenchAllocator<Store>());
  else if (shared_.load(std::memory_order_relaxed))
    store_ = std::allocate_shared<Store>(ZrWorkbenchAllocator<Store>(), *store_);
  shared_.store(false, std::memory_order_relaxed);
  return *store_;
}

void ZrHeaderFields::Append(std::string_view name, std::string_view value) {
  Store& store = Writable();
  constexpr std::size_t kMaxText = std::numeric_limits<std::uint32_t>::max();
  if (name.size() + value.size() > kMaxText - store.text.size())
    throw std::length_error("more than 4 GiB of header fields");
  Line line;
  line.nameStart = static_cast<std::uint32_t>(store.text.size());
  line.nameSize = static_cast<std::uint32_t>(name.size());
  line.valueStart = line.nameStart + line.nameSize;
  line.valueSize = static_cast<std::uint32_t>(value.size());
  const auto place = std::upper_bound(
      store.lines.begin(), store.lines.end(), name,
      [&store](std::string_view wanted, const Line& other) { return wanted < store.Name(other); });
  store.lines.insert(place, line);
  store.text.append(name).append(value);
}

void ZrHeaderFields::Reserve(std::size_t bytes, std::size_t lines) {
  Store& store = Writable();
  store.text.reserve(bytes);
  store.lines.reserve(lines);
}

// The first line whose name is not before that one.
std::size_t ZrHeaderFields::Store::LowerBound(std::string_view name) const {
  const auto place = std::lower_bound(
      lines.begin(), lines.end(), name,
      [this](const Line& line, std::string_view wanted) { return Name(line) < wanted; });
  return static_cast<std::size_t>(place - lines.begin());
}

ZrHeaderFields::const_iterator ZrHeaderFields::find(std::string_view name) const {
  if (!store_) return end();
  // Of the few lines that heads have, hardly one has a name as long as that.
  if (store_->lines.size() <= kFewLines) {
    for (std::size_t index = 0; index < store_->lines.size(); ++index) {
      const Line& line = store_->lines[index];
      if (line.nameSize == name.size() && store_->Name(line) == name) return {store_.get(), index};
    }
    return end();
  }
  const std::size_t place = store_->LowerBound(name);
  if (place == store_->lines.size() || store_->Name(store_->lines[place]) != name) return end();
  return {store_.get(), place};
}

bool ZrHeaderFields::ContainsPrefix(std::string_view prefix) const {
  if (!store_) return false;
  const std::size_t place = store_->LowerBound(prefix);
  return place != store_->lines.size() && store_->Name(store_->lines[place]).starts_with(prefix);
}

ZrHeaderFields::Values ZrHeaderFields::operator[](std::string_view name) const {
  const const_iterator found = find(name);
  return found == end() ? Values() : (*found).second;
}

std::string_view ZrHeaderFields::First(std::string_view name, std::string_view defaultValue) const {
  const Values values = (*this)[name];
  return values.empty() ? defaultValue : values.front();
}

std::size_t ZrHeaderFields::const_iterator::GroupEnd() const {
  const std::string_view name = store_->Name(store_->lines[index_]);
  std::size_t end = index_ + 1;
  while (end < store_->lines.size() && store_->Name(store_->lines[end]) == name) ++end;
  return end;
}

ZrHeaderFields::Entry ZrHeaderFields::const_iterator::operator*() const {
  const Line* const lines = store_->lines.data() + index_;
  return {store_->Name(*lines), Values(store_->text.data(), lines, GroupEnd() - index_)};
}

ZrHeaderFields::const_iterator& ZrHeaderFields::const_iterator::operator++() {
  index_ = GroupEnd();
  return *this;
}
