#include "base/string_buffer.h"

#include <algorithm>
#include <utility>

namespace {

// An emptied buffer gives back more memory than this, so that one large message does not stay
// with its connection for good.
constexpr std::size_t kKeptCapacity = std::size_t{64} * 1024;

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
  setg(start, start, start + bytes.size());
}

ZrStringBuf::ZrStringBuf(ZrStringBuf&& other) noexcept { *this = std::move(other); }

ZrStringBuf& ZrStringBuf::operator=(ZrStringBuf&& other) noexcept {
  if (this == &other) return *this;
  const std::size_t readOffset = other.ReadOffset();
  owner_ = std::move(other.owner_);
  if (owner_) {
    setg(other.eback(), other.gptr(), other.egptr());
    storage_ = Bytes();
    end_ = 0;
    other.Clear();
    return *this;
  }
  storage_ = std::move(other.storage_);
  end_ = std::exchange(other.end_, 0);
  // A short text lies inside the string object, so the pointers cannot travel.
  SetArea(readOffset);
  other.storage_.clear();
  other.SetArea(0);
  return *this;
}

void ZrStringBuf::Append(std::string_view bytes) {
  if (!owner_ && storage_.size() == end_ && storage_.capacity() - end_ >= bytes.size()) {
    const std::size_t readOffset = ReadOffset();
    storage_.append(bytes);
    end_ += bytes.size();
    return SetArea(readOffset);
  }
  MakeRoom(bytes.size());
  const std::size_t readOffset = ReadOffset();
  storage_.resize(end_);
  storage_.append(bytes);
  end_ = storage_.size();
  SetArea(readOffset);
}

void ZrStringBuf::Reserve(std::size_t bytes) {
  if (bytes > Size()) MakeRoom(bytes - Size());
}

std::span<char> ZrStringBuf::Prepare(std::size_t bytes) {
  MakeRoom(bytes);
  const std::size_t readOffset = ReadOffset();
  storage_.resize(end_ + bytes);
  SetArea(readOffset);
  return {storage_.data() + end_, bytes};
}

void ZrStringBuf::Commit(std::size_t bytes) noexcept {
  const std::size_t readOffset = ReadOffset();
  end_ += std::min(bytes, storage_.size() - end_);
  SetArea(readOffset);
}

void ZrStringBuf::Consume(std::size_t bytes) noexcept {
  if (bytes >= Size())
    Clear();
  else if (owner_)
    setg(eback(), gptr() + bytes, egptr());
  else
    SetArea(ReadOffset() + bytes);
}

std::string ZrStringBuf::Take() {
  std::string bytes(Unread());
  Clear();
  return bytes;
}

void ZrStringBuf::Clear() noexcept {
  owner_ = nullptr;
  if (storage_.capacity() > kKeptCapacity)
    storage_ = Bytes();
  else
    storage_.clear();
  end_ = 0;
  SetArea(0);
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

void ZrStringBuf::SetArea(std::size_t readOffset) noexcept {
  char* const start = storage_.data();
  setg(start, start + readOffset, start + end_);
}

// Makes bytes of another owner this buffer's own.
void ZrStringBuf::TakeOver() {
  storage_ = Unread();
  end_ = storage_.size();
  owner_ = nullptr;
  SetArea(0);
}

// Room for more bytes behind the end. The unread bytes move to the front only when at least as many
// were consumed before them, and otherwise the memory at least doubles: either way each byte moves
// a bounded number of times however the appends are cut.
void ZrStringBuf::MakeRoom(std::size_t bytes) {
  if (owner_) TakeOver();
  const std::size_t unread = Size();
  std::size_t readOffset = ReadOffset();
  if (storage_.capacity() - end_ < bytes && readOffset != 0 && readOffset >= unread) {
    storage_.resize(end_);
    storage_.erase(0, readOffset);
    end_ = unread;
    readOffset = 0;
  }
  if (storage_.capacity() - end_ < bytes) {
    storage_.resize(end_);
    storage_.reserve(std::max(end_ + bytes, 2 * storage_.capacity()));
  }
  SetArea(readOffset);
}
