#pragma once
// The byte buffer of the whole system: received bytes, bodies, message heads and output queues. One
// contiguous piece of memory with a read position, so that a reader can scan what has arrived as a
// view, and a writer can fill it in place. It is also a stream buffer: a std::istream over it reads
// (and consumes) from the front, a std::ostream over it appends at the end. It is not seekable.
// Threads: one at a time; whoever shares a buffer guards it.

#include <cstddef>
#include <cstring>
#include <memory>
#include <span>
#include <streambuf>
#include <string>
#include <string_view>

#include "base/workbench.h"

/// Bytes that are appended at the end and consumed from the front. Every operation costs time
/// linear in the bytes it moves; consumed space is used again before the memory grows.
class ZrStringBuf : public std::streambuf, public ZrOnWorkbench {
 public:
  ZrStringBuf() = default;
  /// A buffer that holds these bytes; nothing is copied.
  explicit ZrStringBuf(std::string bytes);
  /// A buffer that gives these bytes where they lie, for as long as it shares their owner. Adding
  /// to it copies what is unread.
  ZrStringBuf(std::string_view bytes, std::shared_ptr<const void> owner) noexcept;
  /// Moving hands over the memory and leaves the other buffer empty.
  ZrStringBuf(ZrStringBuf&& other) noexcept;
  ZrStringBuf& operator=(ZrStringBuf&& other) noexcept;
  ZrStringBuf(const ZrStringBuf&) = delete;
  ZrStringBuf& operator=(const ZrStringBuf&) = delete;
  ~ZrStringBuf() override { ReleaseMemory(); }

  /// Adds bytes at the end. They must not lie in this buffer. Invalidates views.
  void Append(std::string_view bytes) {
    if (bytes.empty()) return;
    if (bytes.size() > Room()) MakeRoom(bytes.size());
    std::memcpy(egptr(), bytes.data(), bytes.size());
    setg(eback(), gptr(), egptr() + bytes.size());
  }
  void Append(char byte) { Append(std::string_view(&byte, 1)); }
  /// Makes room for that many bytes in all without growing again. Invalidates views.
  void Reserve(std::size_t bytes) {
    if (bytes > Size() && bytes - Size() > Room()) MakeRoom(bytes - Size());
  }
  /// Gives `bytes` bytes of writable space behind the end, for a read into the buffer; Commit()
  /// then says how many of them were filled (at most as many), and only those count.
  std::span<char> Prepare(std::size_t bytes) {
    if (bytes > Room()) MakeRoom(bytes);
    return {egptr(), bytes};
  }
  void Commit(std::size_t bytes) noexcept { setg(eback(), gptr(), egptr() + bytes); }

  /// The bytes not yet consumed. Valid until the next operation that changes the buffer.
  std::string_view Unread() const noexcept {
    return {gptr(), static_cast<std::size_t>(egptr() - gptr())};
  }
  /// The number of bytes not yet consumed.
  std::size_t Size() const noexcept { return static_cast<std::size_t>(egptr() - gptr()); }
  bool Empty() const noexcept { return gptr() == egptr(); }
  /// The heap that this buffer occupies, in bytes; none for bytes of another owner.
  std::size_t HeapBytes() const noexcept { return owner_ ? 0 : Capacity(); }
  /// Drops that many bytes at the front, at most all of them.
  void Consume(std::size_t bytes) noexcept;
  /// Takes a copy of the unread bytes; the buffer is empty afterwards.
  std::string Take();
  /// Forgets all bytes; keeps a small buffer's memory for the next ones.
  void Clear() noexcept;

 protected:
  int_type underflow() override;
  int_type overflow(int_type byte) override;
  std::streamsize xsputn(const char* bytes, std::streamsize count) override;

 private:
  std::size_t Capacity() const noexcept { return static_cast<std::size_t>(limit_ - eback()); }
  std::size_t Room() const noexcept { return static_cast<std::size_t>(limit_ - egptr()); }
  void MakeRoom(std::size_t bytes);
  void MoveTo(char* memory, std::size_t capacity) noexcept;
  void ReleaseMemory() noexcept;

  // The get area of the base class is the bytes from the start of the memory to the last one that
  // counts; its next pointer is the read position. There is no put area: writing always comes
  // through Append(). The memory comes from the thread's workbench and ends at limit_.
  char* limit_ = nullptr;
  // Of bytes that lie elsewhere; the get area is then theirs, with no room behind it.
  std::shared_ptr<const void> owner_;
};
