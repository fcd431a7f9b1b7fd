#pragma once
// A plain TCP client on 127.0.0.1 that sends bytes exactly as told: in pieces, half closed, reset.

#include <chrono>
#include <string>
#include <string_view>
#include <utility>

#include "platform/descriptor.h"

namespace zrtest {

class RawClient {
 public:
  /// Connects; Connected() is false when nobody listens there. A receive window of that many bytes
  /// (0: the system's choice) makes a slow reader.
  explicit RawClient(int port, int receiveWindow = 0);
  /// One end of a connection that is there.
  explicit RawClient(ZrDescriptor socket) : socket_(std::move(socket)) {}
  RawClient(RawClient&&) = default;
  RawClient& operator=(RawClient&&) = default;
  virtual ~RawClient() = default;

  bool Connected() const { return socket_.IsOpen(); }
  /// The port of this end: nobody listens there, nor can while the client lives.
  int LocalPort() const;
  /// False when the peer no longer takes bytes, or none within the limit.
  bool Send(std::string_view bytes, std::chrono::milliseconds limit = std::chrono::seconds(60));
  /// For what this class has no words for.
  int Descriptor() const { return socket_.Get(); }
  /// No more bytes from this side; reading goes on.
  void FinishSending();
  /// At most `capacity` bytes that are there within the limit; empty at the end or when none came.
  virtual std::string ReadSome(std::size_t capacity = 65536,
                               std::chrono::milliseconds limit = std::chrono::seconds(20));
  /// Reads until the text ends with, or the whole holds, `end`; what came so far at the limit.
  std::string ReadUntil(std::string_view end);
  /// Reads to the end of the stream, but never longer than the limit without a byte. `ended` tells
  /// whether the peer closed in order.
  std::string ReadToEnd(bool* ended = nullptr,
                        std::chrono::milliseconds limit = std::chrono::seconds(20));
  /// Whether the peer has ended its side, in order or not.
  bool Ended() const { return ended_; }
  /// Closes with a reset instead of an orderly end.
  void Reset();
  void Close() { socket_.Close(); }

 protected:
  ZrDescriptor socket_;
  bool ended_ = false;

 private:
  bool closed_ = false;
};

}  // namespace zrtest
