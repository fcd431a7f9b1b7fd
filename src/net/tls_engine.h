#pragma once
// TLS on one connected socket, step by step: nothing here waits but ConnectWithin(). The TLS
// connection asks it to read and write when the socket is ready, and learns from the results and
// the unsent bytes what readiness to wait for. It knows bytes only, no messages, queues or events.
// Threads: one at a time (the connection's own lock).

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "net/tls_transport.h"

struct ssl_st;         // OpenSSL's SSL
struct ssl_ctx_st;     // OpenSSL's SSL_CTX
struct bio_method_st;  // OpenSSL's BIO_METHOD

/// How one step ended.
enum class ZrTlsStatus {
  kDone = 0,       ///< `count` bytes moved, or what was asked for is complete.
  kWantRead = 1,   ///< Nothing moved: repeat the same step once the socket has input.
  kWantWrite = 2,  ///< Nothing moved: repeat the same step once the socket takes output.
  kClosed = 3,     ///< The peer ended its side in order; answers can still be sent.
  kFailed = 4,     ///< The connection is broken and nothing can be sent; give it up.
};

struct ZrTlsResult {
  ZrTlsStatus status = ZrTlsStatus::kDone;
  std::size_t count = 0;
};

class ZrTlsEngine {
 public:
  enum class Side { kServer, kClient };
  /// The most that one Read() or Write() moves: the body of one record.
  static constexpr std::size_t kRecord = 16384;
  /// How long the handshake of the client side may take, and how long one wait for room in it.
  static constexpr std::chrono::seconds kHandshakeLimit{60};
  static constexpr std::chrono::seconds kRoomLimit{48};

  /// Prepares TLS on a connected, non-blocking socket, which the caller keeps open longer than this
  /// object. The context may be none or freed afterwards. `serverName` is the host that the client
  /// side asks for: sent to the server when it is a name (SNI), and compared with the certificate
  /// when the context checks those. Throws ZrException "Error getting SSL context" when OpenSSL
  /// gives no connection object, as it does without a context.
  ZrTlsEngine(ssl_ctx_st* context, int socket, Side side, const std::string& serverName = {});
  ZrTlsEngine(const ZrTlsEngine&) = delete;
  ZrTlsEngine& operator=(const ZrTlsEngine&) = delete;
  ~ZrTlsEngine();

  /// One step of the handshake; kDone when it is finished. Reads and writes do such steps as well,
  /// so a server calls it once at most.
  ZrTlsStatus Handshake();
  /// Runs the handshake of the client side to its end on the calling thread. Throws ZrException
  /// "Error getting SSL_connect" when the limit passed or `cancelled` (may be empty; asked every
  /// zr::kCancelSlice) answers true, "Error getting SSL read" or "Error getting SSL write" when the
  /// socket cannot be waited for, and "Error in TLS handshake: ..." with the reason when the peer
  /// or its certificate is refused.
  void ConnectWithin(std::chrono::milliseconds limit, const std::function<bool()>& cancelled = {});
  /// The handshake is finished.
  bool IsEstablished() const;

  /// Decrypts into `target`, at most kRecord bytes. kDone with a count, or a reason why not.
  ZrTlsResult Read(std::span<char> target);
  /// Bytes lie here that the socket will not report again: read on without waiting for readiness.
  bool HasBufferedInput() const;

  /// Encrypts the front of the bytes (not empty), at most kRecord of them. Counted bytes are
  /// accepted: they are sent, or kept here for Flush(). After kWantRead and kWantWrite the next
  /// call passes bytes that start with the same ones. With `more` set the output may wait for the
  /// next call; end a row of such calls with one without it or with Flush().
  ZrTlsResult Write(std::string_view bytes, bool more);
  /// Sends what is kept. kDone when nothing is left, kWantWrite when the socket is full.
  ZrTlsStatus Flush();
  /// Encrypted bytes that wait for the socket: watch it for writability, then Flush().
  std::size_t Unsent() const noexcept { return transport_.Unsent(); }
  /// Encrypted bytes that the socket has taken; it grows while the peer makes progress.
  std::uint64_t Sent() const noexcept { return transport_.Sent(); }
  /// Tells the peer that nothing more comes, once, and flushes; results as of Flush(). Nothing is
  /// sent on a broken connection or before the handshake is finished, and that is kDone.
  ZrTlsStatus Shutdown();

 private:
  struct SslDeleter {
    void operator()(ssl_st* ssl) const noexcept;
  };
  struct MethodDeleter {
    void operator()(bio_method_st* method) const noexcept;
  };

  ZrTlsStatus StatusOf(int result);
  ZrTlsStatus FlushTransport();
  void ThrowHandshakeFailure() const;

  ZrTlsTransport transport_;                              // outlives ssl_, which writes through it
  std::unique_ptr<bio_method_st, MethodDeleter> method_;  // likewise
  std::unique_ptr<ssl_st, SslDeleter> ssl_;
  bool broken_ = false;
  bool shutDown_ = false;
};
