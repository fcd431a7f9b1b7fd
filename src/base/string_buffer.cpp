#include "base/string_buffer.h"

#include <algorithm>
#include <limits>
#include <stdexcept>
#include <utility>

namespace {

// An emptied buffer gives back more memory than this, so that one large message does not stay
// with its connection for good.
constexpr std::size_t kKeptCapacity = std::size_t{64} * 1024;
// The least memory, and what sizes are rounded up to.
constexpr std::size_t kGrain = 64;
constexpr std::size_t kMostBytes = std::numeric_limits<std::size_t>::max() / 4;

}  // namespace

ZrStringBuf::ZrStringBuf(std::string bytes) {
  auto owner = std::make_shared<const std::string>(std::move(bytes));
  const std::string_view all = *owner;
  *this = ZrStringBuf(all, std::move(owner));
}

ZrStringBuf::ZrStringBuf(std::string_view bytes, std::shared_ptr<const void> owner) noexcept
    : owner_(std::move(owner)) {
  // Nothing writes through a get area.
  char* const start = const_cast<char*>(bytes.data());
  limit_ = start + bytes.size();
  setg(start, start, limit_);
}

ZrStringBuf::ZrStringBuf(ZrStringBuf&& other) noexcept { *this = std::move(other); }

ZrStringBuf& ZrStringBuf::operator=(ZrStringBuf&& other) noexcept {
  if (this == &other) return *this;
  ReleaseMemory();
  setg(other.eback(), other.gptr(), other.egptr());
  limit_ = std::exchange(other.limit_, nullptr);
  owner_ = std::move(other.owner_);
  other.setg(nullptr, nullptr, nullptr);
  return *this;
}

void ZrStringBuf::Consume(std::size_t bytes) noexcept {
  if (bytes >= Size())
    Clear();
  else
    setg(eback(), gptr() + bytes, egptr());
}

std::string ZrStringBuf::Take() {
  std::string bytes(Unread());
  Clear();
  return bytes;
}

void ZrStringBuf::Clear() noexcept {
  if (!owner_ && Capacity() <= kKeptCapacity) return setg(eback(), eback(), eback());
  ReleaseMemory();
  owner_ = nullptr;
  limit_ = nullptr;
  setg(nullptr, nullptr, nullptr);
}

ZrStringBuf::int_type ZrStringBuf::underflow() {
  return Empty() ? traits_type::eof() : traits_type::to_int_type(*gptr());
}

ZrStringBuf::int_type ZrStringBuf::overflow(int_type byte) {
  if (!traits_type::eq_int_type(byte, traits_type::eof())) Append(traits_type::to_char_type(byte));
  return traits_type::not_eof(byte);
}

std::streamsize ZrStringBuf::xsputn(const char* bytes, std::streamsize count) {
  if (count > 0) Append(std::string_view(bytes, static_cast<std::size_t>(count)));
  return count;
}

// Room for more bytes behind the end. The unread bytes move to the front only when at least as many
// were consumed before them, and otherwise the memory at least doubles: either way each byte moves
// a bounded number of times however the appends are cut.
void ZrStringBuf::MakeRoom(std::size_t bytes) {
  const std::size_t unread = Size();
  if (!owner_) {
    const auto consumed = static_cast<std::size_t>(gptr() - eback());
    if (bytes <= Room()) return;
    if (consumed >= unread && bytes <= Capacity() - unread) return MoveTo(eback(), Capacity());
  }
  if (bytes > kMostBytes - unread) throw std::length_error("ZrStringBuf");
  const std::size_t wanted = std::max(unread + bytes, owner_ ? 0 : 2 * Capacity());
  const std::size_t capacity = (wanted + kGrain - 1) / kGrain * kGrain;
  MoveTo(static_cast<char*>(ZrWorkbench::Take(capacity)), capacity);
}

// The unread bytes go to the front of that memory, which may be this buffer's own.
void ZrStringBuf::MoveTo(char* memory, std::size_t capacity) noexcept {
  const std::size_t unread = Size();
  if (unread > 0) std::memmove(memory, gptr(), unread);
  if (owner_ || memory != eback()) ReleaseMemory();
  owner_ = nullptr;
  limit_ = memory + capacity;
  setg(memory, memory, memory + unread);
}

void ZrStringBuf::ReleaseMemory() noexcept {
  if (!owner_ && eback() != nullptr) ZrWorkbench::Release(eback(), Capacity());
}
