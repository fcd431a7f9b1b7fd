#pragma once
// One end of a TCP connection that can misbehave: it sends parts of records, ends in every way that
// TCP and TLS know, and never waits longer than it is told to. TLS is spoken over memory, so that
// what goes onto the wire, and when, is the test's decision.

#include <chrono>
#include <memory>
#include <string>
#include <string_view>

#include "platform/descriptor.h"

struct ssl_st;

namespace zrtest {

enum class Wire { kPlain, kTls12, kTls13 };

class Line {
 public:
  static constexpr std::chrono::milliseconds kLong{5000};

  /// Connects to the port on 127.0.0.1; small windows, so that a big answer is not taken whole.
  Line(int port, Wire wire);
  /// The server's end of an accepted connection, with the certificate of the tests.
  Line(ZrDescriptor socket, Wire wire);
  ~Line();
  Line(const Line&) = delete;
  Line& operator=(const Line&) = delete;

  bool IsOpen() const { return socket_.IsOpen(); }
  bool Handshake();
  /// The first flight of a client, or of a server that has read the client's: bytes for SendRaw().
  std::string FirstFlight();
  /// The bytes that say this on the wire; with TLS they must be sent, in order.
  std::string Seal(std::string_view text);
  /// TLS 1.3: so many requests to take a new key, as bytes for the wire.
  std::string KeyUpdates(int count);
  /// Sends bytes as they are; false when the peer takes no more within the limit.
  bool SendRaw(std::string_view bytes, std::chrono::milliseconds limit = kLong);
  bool Send(std::string_view text) { return SendRaw(Seal(text)); }

  /// Waits until the peer has read all that was sent, or has gone; the system tells (Linux).
  bool WaitUntilTaken();
  /// Whether something is there to be read, an end included; nothing is.
  bool WaitInput(std::chrono::milliseconds limit = kLong);
  /// What has arrived within the limit, decrypted; empty at an end, an error or when nothing came.
  std::string Read(std::size_t most = 65536, std::chrono::milliseconds limit = kLong);
  std::string ReadUntil(std::string_view mark);
  /// To the end, but never longer than the limit without a byte.
  std::string ReadToEnd(std::chrono::milliseconds limit = kLong);
  /// Whether the peer has ended its side, in order or not.
  bool Ended() const { return ended_; }

  void Finish();       ///< FIN
  void CloseNotify();  ///< TLS's end mark, also before the handshake; nothing on a plain line
  void Reset();        ///< RST
  void Close() { socket_.Close(); }

 private:
  void Begin(Wire wire, bool server);
  std::string TakeOutput();
  bool Fill(std::chrono::milliseconds limit);

  struct Free {
    void operator()(ssl_st* tls) const;
  };
  ZrDescriptor socket_;
  std::unique_ptr<ssl_st, Free> tls_;
  bool ended_ = false;
};

}  // namespace zrtest
