#pragma once
// The bytes between OpenSSL and a line. OpenSSL's own socket layer would raise SIGPIPE (alerts are
// written even while reading) and makes one system call per record of 16 KiB; this one sends
// without the signal, gathers records while more follow, and keeps what the line refused, so that
// a record that was encrypted is never a half-finished write for the caller.
//
// It also remembers what happened to the line, because OpenSSL does not: a failure that it meets
// while it sends a session ticket is forgotten there, and the system tells each failure once. So
// the engine asks here first. The states, and what leads from one to the next:
//
//   kOpen  --the peer's end-->          kEnded  nothing comes any more; sending goes on
//   kOpen, kEnded  --any failure-->     kDead   for good, in both directions
//
// Threads: one at a time, with the engine that owns it.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string_view>

#include "net/byte_line.h"

class ZrTlsTransport {
 public:
  enum class State { kOpen, kEnded, kDead };

  /// From this many gathered bytes on they are sent.
  static constexpr std::size_t kGather = std::size_t{64} * 1024;
  /// The most that waits for the line: a gathered lot, one more record with its frame, and room
  /// for what reading gives rise to (handshake messages, alerts, answers to key updates).
  static constexpr std::size_t kMostUnsent = kGather + std::size_t{32} * 1024;
  /// Receives of one turn: a hundred full records and what is short between them.
  static constexpr int kReadsPerTurn = 256;

  /// The line is the caller's and lives longer than this object.
  explicit ZrTlsTransport(ZrByteLine& line) noexcept : line_(line) {}
  ZrTlsTransport(const ZrTlsTransport&) = delete;
  ZrTlsTransport& operator=(const ZrTlsTransport&) = delete;

  /// While set, output is gathered instead of sent at once.
  void Gather(bool more) noexcept { gathering_ = more; }
  /// Takes encrypted bytes, all of them: they are sent or kept. Any other result than kDone ends
  /// the connection: the line's failure, or kFailed for a peer that makes this side answer (by
  /// key updates) without ever reading the answers.
  ZrIoResult Write(std::string_view bytes);
  /// Sends what is kept. kDone when nothing is left, kWouldBlock when the line is full.
  ZrIoResult Flush();
  /// Receives encrypted bytes. kWouldBlock also when the turn's receives are used up, or held.
  ZrIoResult Read(std::span<char> target);

  /// While held, nothing is received: what a write took with it would lie here unannounced.
  void HoldInput(bool hold) noexcept { inputHeld_ = hold; }
  /// A new turn: its receives are to be had again.
  void BeginTurn() noexcept { readsLeft_ = kReadsPerTurn; }
  void EndTurn() noexcept { readsLeft_ = 0; }
  /// This turn has no receive left: there may be more to read, which the line will not announce.
  bool TurnIsOver() const noexcept { return readsLeft_ == 0; }
  /// The line is given up from this side.
  void Break() noexcept { state_ = State::kDead; }
  State LineState() const noexcept { return state_; }
  bool Dead() const noexcept { return state_ == State::kDead; }
  /// The system's number of the failure that ended the line; 0 when it was none of the system's.
  int Error() const noexcept { return error_; }

  /// Bytes that the line has not taken yet.
  std::size_t Unsent() const noexcept { return end_ - begin_; }
  /// Bytes that the line has taken since the beginning.
  std::uint64_t Sent() const noexcept { return sent_; }
  ZrByteLine& Line() const noexcept { return line_; }

 private:
  std::string_view Kept() const noexcept { return {kept_.get() + begin_, Unsent()}; }
  void Keep(std::string_view bytes);
  void TakeMemory();
  void ReleaseMemory() noexcept;
  void Forget(std::size_t bytes) noexcept;
  ZrIoResult Failed() const noexcept { return {ZrIoStatus::kFailed, 0, error_}; }
  ZrIoResult Die(int error) noexcept;

  ZrByteLine& line_;
  State state_ = State::kOpen;
  int error_ = 0;
  int readsLeft_ = kReadsPerTurn;
  bool gathering_ = false;
  bool inputHeld_ = false;
  std::unique_ptr<char[]> kept_;  // kMostUnsent bytes, or none while nothing is kept
  std::size_t begin_ = 0;
  std::size_t end_ = 0;
  std::uint64_t sent_ = 0;
};
