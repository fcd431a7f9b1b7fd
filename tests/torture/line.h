#pragma once
// One end of a TCP connection that can misbehave: it sends parts of records, ends in every way that
// TCP and TLS know, and never waits longer than it is told to. TLS is spoken over memory, so that
// what goes onto the wire, and when, is the test's decision.

#include <chrono>
#include <memory>
#include <string>
#include <string_view>

#include "tests/support/raw_client.h"

struct ssl_st;

namespace zrtest {

enum class Wire { kPlain, kTls12, kTls13 };

class Line : public RawClient {
 public:
  static constexpr std::chrono::seconds kLong{5};

  /// Connects to the port on 127.0.0.1; small windows, so that a big answer is not taken whole.
  Line(int port, Wire wire);
  /// The server's end of an accepted connection, with the certificate of the tests.
  Line(ZrDescriptor socket, Wire wire);

  bool Handshake();
  /// The first flight of a client, or of a server that has read the client's: bytes for SendRaw().
  std::string FirstFlight();
  /// The bytes that say this on the wire; with TLS they must be sent, in order.
  std::string Seal(std::string_view text);
  /// TLS 1.3: so many requests to take a new key, as bytes for the wire.
  std::string KeyUpdates(int count);
  /// Sends bytes as they are; false when the peer takes no more within the limit.
  bool SendRaw(std::string_view bytes, std::chrono::milliseconds limit = kLong) {
    return RawClient::Send(bytes, limit);
  }
  bool Send(std::string_view text) { return SendRaw(Seal(text)); }

  /// Waits until the peer has read all that was sent, or has gone; the system tells (Linux).
  bool WaitUntilTaken();
  /// Whether something is there to be read, an end included; nothing is.
  bool WaitInput(std::chrono::milliseconds limit = kLong);
  /// Decrypted.
  std::string ReadSome(std::size_t most = 65536, std::chrono::milliseconds limit = kLong) override;
  /// TLS's end mark, also before the handshake; nothing on a plain line.
  void CloseNotify();

 private:
  void Begin(Wire wire, bool server);
  std::string TakeOutput();
  bool Fill(std::chrono::milliseconds limit);

  std::unique_ptr<ssl_st, void (*)(ssl_st*)> tls_{nullptr, nullptr};
};

}  // namespace zrtest
