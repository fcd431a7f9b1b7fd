#pragma once
// One connected stream of bytes, as those see it who speak over it: TLS, the queue of what is to be
// sent, a connection that reads. The socket is one; tests use one that refuses, cuts or fails the
// n-th call. Nothing here waits but the two waits. Threads: one at a time.

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "platform/descriptor.h"
#include "platform/file.h"
#include "platform/io.h"
#include "platform/socket.h"

/// Results are those of platform/socket.h: kDone with a count, kWouldBlock, kClosed with error 0
/// for the peer's orderly end, and everything else for a line that is of no further use.
class ZrByteLine {
 public:
  virtual ~ZrByteLine() = default;
  virtual ZrIoResult Send(std::string_view bytes) = 0;
  virtual ZrIoResult SendPieces(std::span<const std::string_view> pieces) = 0;
  /// kDone with count 0 is the end of the file.
  virtual ZrIoResult SendFile(const ZrFile& file, std::uint64_t offset, std::size_t length) = 0;
  virtual ZrIoResult Receive(std::span<char> target) = 0;
  virtual ZrWaitStatus WaitReadable(std::chrono::milliseconds limit) = 0;
  virtual ZrWaitStatus WaitWritable(std::chrono::milliseconds limit) = 0;
};

/// The line over a socket, which stays its owner's and may be opened later.
class ZrSocketLine final : public ZrByteLine {
 public:
  explicit ZrSocketLine(const ZrDescriptor& socket) noexcept : socket_(socket) {}
  ZrIoResult Send(std::string_view bytes) override { return zr::SendBytes(socket_.Get(), bytes); }
  ZrIoResult SendPieces(std::span<const std::string_view> pieces) override {
    return zr::SendPieces(socket_.Get(), pieces);
  }
  ZrIoResult SendFile(const ZrFile& file, std::uint64_t offset, std::size_t length) override {
    return zr::SendFile(socket_.Get(), file, offset, length);
  }
  ZrIoResult Receive(std::span<char> target) override {
    return zr::ReceiveBytes(socket_.Get(), target);
  }
  ZrWaitStatus WaitReadable(std::chrono::milliseconds limit) override {
    return zr::WaitReadable(socket_.Get(), limit);
  }
  ZrWaitStatus WaitWritable(std::chrono::milliseconds limit) override {
    return zr::WaitWritable(socket_.Get(), limit);
  }

 private:
  const ZrDescriptor& socket_;
};
