#pragma once
// The bytes between OpenSSL and a socket. OpenSSL's own socket layer would raise SIGPIPE (alerts
// are written even while reading) and makes one system call per record of 16 KiB; this one sends
// without the signal, gathers records while more follow, and keeps what the socket refused, so that
// a record that was encrypted is never a half-finished write for the caller. Threads: one at a
// time, with the engine that owns it.

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string_view>

#include "platform/io.h"

class ZrTlsTransport {
 public:
  /// From this many gathered bytes on they are sent.
  static constexpr std::size_t kGather = std::size_t{64} * 1024;
  /// The most that waits for the socket: a gathered lot, one more record with its frame, and room
  /// for what reading gives rise to (handshake messages, alerts, answers to key updates).
  static constexpr std::size_t kMostUnsent = kGather + std::size_t{32} * 1024;

  /// The descriptor is the caller's and stays open longer than this object.
  explicit ZrTlsTransport(int socket) noexcept : socket_(socket) {}
  ZrTlsTransport(const ZrTlsTransport&) = delete;
  ZrTlsTransport& operator=(const ZrTlsTransport&) = delete;

  /// While set, output is gathered instead of sent at once.
  void Gather(bool more) noexcept { gathering_ = more; }
  /// Takes encrypted bytes, all of them: they are sent or kept. Any other result than kDone ends
  /// the connection: the socket's failure, or kFailed for a peer that makes this side answer (by
  /// key updates) without ever reading the answers.
  ZrIoResult Write(std::string_view bytes);
  /// Sends what is kept. kDone when nothing is left, kWouldBlock when the socket is full.
  ZrIoResult Flush();
  /// Receives encrypted bytes.
  ZrIoResult Read(std::span<char> target);

  /// Bytes that the socket has not taken yet.
  std::size_t Unsent() const noexcept { return end_ - begin_; }
  /// Bytes that the socket has taken since the beginning.
  std::uint64_t Sent() const noexcept { return sent_; }
  int Socket() const noexcept { return socket_; }

 private:
  std::string_view Kept() const noexcept { return {kept_.get() + begin_, Unsent()}; }
  void Keep(std::string_view bytes);
  void Forget(std::size_t bytes) noexcept;

  int socket_;
  bool gathering_ = false;
  std::unique_ptr<char[]> kept_;  // kMostUnsent bytes, or none while nothing is kept
  std::size_t begin_ = 0;
  std::size_t end_ = 0;
  std::uint64_t sent_ = 0;
};
