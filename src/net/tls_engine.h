#pragma once
// TLS on one connected line, step by step: nothing here waits but ConnectWithin(). The TLS
// connection asks it to read and write when the socket is ready, and learns from the results and
// the unsent bytes what readiness to wait for. It knows bytes only, no messages, queues or events.
//
// What a step answers is decided here and not left to OpenSSL: a line that has died is asked for
// before and after each of its calls, because it forgets failures (those of a session ticket) and
// takes for an orderly end what follows them. Each direction has results of its own: only reading
// knows an end, so that a write can never be told of one.
//
// A peer must not hold a thread, whatever it sends. OpenSSL goes on through records that carry no
// data (key updates, empty ones, alerts) for as long as there are any, so reading has a budget of
// receives for each turn of the connection, and a row of such records ends the connection.
//
// Threads: one at a time (the connection's own lock).

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "net/tls_transport.h"

struct ssl_st;         // OpenSSL's SSL
struct ssl_ctx_st;     // OpenSSL's SSL_CTX
struct bio_method_st;  // OpenSSL's BIO_METHOD

/// How a step of reading ended.
enum class ZrTlsReadStatus {
  kDone = 0,      ///< `count` bytes were read, more than none.
  kWantRead = 1,  ///< Nothing came: read again once the socket has input.
  kAgain = 2,     ///< The turn is used up: read again in the next one, whatever the socket says.
  kEnded = 3,     ///< The peer ended its side; answers can still be sent.
  kFailed = 4,    ///< The connection is broken in both directions; give it up.
};

/// How a step of the handshake, of writing, flushing or saying goodbye ended.
enum class ZrTlsWriteStatus {
  kDone = 0,       ///< `count` bytes were accepted, or what was asked for is complete.
  kWantRead = 1,   ///< Nothing moved: repeat the same step once input was read.
  kWantWrite = 2,  ///< The socket refused bytes: repeat the step once it takes output.
  kFailed = 3,     ///< The connection is broken in both directions; give it up.
};

struct ZrTlsReadResult {
  ZrTlsReadStatus status = ZrTlsReadStatus::kDone;
  std::size_t count = 0;
};
struct ZrTlsWriteResult {
  ZrTlsWriteStatus status = ZrTlsWriteStatus::kDone;
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
  /// Records in a row that carry no data either way and are not yet too many. A server sends a few
  /// session tickets and a side changes its keys once in gigabytes; OpenSSL itself ends a
  /// connection after as many empty records.
  static constexpr int kMostIdleRecords = 32;
  /// The same for a handshake, whose messages may come in small pieces.
  static constexpr int kMostHandshakeRecords = 256;

  /// Prepares TLS on a connected line, which lives longer than this object. The context may be none
  /// or freed afterwards. `serverName` is the host that the client side asks for: sent to the
  /// server when it is a name (SNI), and compared with the certificate when the context checks
  /// those; the zone of an address is nobody's but this machine's and left out. Throws ZrException
  /// "Error getting SSL context" when OpenSSL gives no connection object, as it does without a
  /// context, and "Error in TLS set-up: ..." for a name that cannot be asked for or compared.
  ZrTlsEngine(ssl_ctx_st* context, ZrByteLine& line, Side side, const std::string& serverName = {});
  ZrTlsEngine(const ZrTlsEngine&) = delete;
  ZrTlsEngine& operator=(const ZrTlsEngine&) = delete;
  ~ZrTlsEngine();

  /// One step of the handshake; kDone when it is finished. Reads and writes do such steps as well,
  /// so a server calls it once at most.
  ZrTlsWriteStatus Handshake();
  /// Runs the handshake of the client side to its end on the calling thread. Throws ZrException
  /// "Error getting SSL_connect" when the limit passed or `cancelled` (may be empty; asked every
  /// zr::kCancelSlice) answers yes, "Error getting SSL read" or "Error getting SSL write" when the
  /// socket cannot be waited for, and "Error in TLS handshake: ..." with Problem() when the peer or
  /// its certificate is refused, or the line breaks.
  void ConnectWithin(std::chrono::milliseconds limit, const std::function<bool()>& cancelled = {});
  /// The handshake is finished.
  bool IsEstablished() const;
  /// What was agreed on: "TLSv1.3" and "TLS_AES_256_GCM_SHA384" for example, and the name that the
  /// client asked the server for, empty when it asked for none. Once it is finished.
  struct Facts {
    std::string version;
    std::string cipher;
    std::string serverName;
  };
  Facts Agreed() const;

  /// The connection has a new turn: reading has its budget again (ZrTlsTransport::kReadsPerTurn).
  /// It ends early after kMostIdleRecords without data: what they cost is paid here.
  void BeginTurn() noexcept {
    transport_.BeginTurn();
    idleInTurn_ = 0;
  }
  /// Decrypts into `target`, at most kRecord bytes. kDone with a count, or a reason why not. An end
  /// is told again by every further call, and so is a failure.
  ZrTlsReadResult Read(std::span<char> target);
  /// A Read() has something to tell that the socket will not report again: do not wait for it.
  bool HasBufferedInput() const;

  /// Encrypts the front of the bytes (not empty), at most kRecord of them. Counted bytes are
  /// accepted: they are sent, or kept here for Flush(). It takes no input: after kWantRead it is
  /// repeated behind a Read(). After that and kWantWrite the next call passes bytes that start with
  /// the same ones. With `more` set the output may wait for the
  /// next call; end a row of such calls with one without it or with Flush().
  ZrTlsWriteResult Write(std::string_view bytes, bool more);
  /// Sends what is kept. kDone when nothing is left, kWantWrite when the socket is full, or
  /// kFailed.
  ZrTlsWriteStatus Flush();
  /// Encrypted bytes that wait for the socket: watch it for writability, then Flush().
  std::size_t Unsent() const noexcept { return transport_.Unsent(); }
  /// Encrypted bytes that the socket has taken; it grows while the peer makes progress.
  std::uint64_t Sent() const noexcept { return transport_.Sent(); }
  /// Tells the peer that nothing more comes, once, and flushes; results as of Flush(). Before the
  /// handshake is finished nothing is sent, and that is kDone.
  ZrTlsWriteStatus Shutdown();

  /// Why it is broken, in a few words; empty before.
  const std::string& Problem() const noexcept { return problem_; }

 private:
  struct SslDeleter {
    void operator()(ssl_st* ssl) const noexcept;
  };
  struct MethodDeleter {
    void operator()(bio_method_st* method) const noexcept;
  };

  bool IsBroken();
  void Break();
  std::string Reason() const;
  ZrTlsWriteStatus WriteStatusOf(int result);
  ZrTlsWriteStatus FlushTransport();
  static void OnRecord(int isWritten, int version, int type, const void* bytes, std::size_t length,
                       ssl_st* ssl, void* engine);
  void CountIdleRecord();
  void Gather(bool more);

  ZrTlsTransport transport_;                              // outlives ssl_, which writes through it
  std::unique_ptr<bio_method_st, MethodDeleter> method_;  // likewise
  std::unique_ptr<ssl_st, SslDeleter> ssl_;
  int idleRecords_ = 0;       // since data moved, either way
  int idleInTurn_ = 0;        // in this turn, whatever lay between them
  bool keepsBuffer_ = false;  // of OpenSSL, for the next record
  bool established_ = false;  // as the counting has seen it
  bool tooManyIdle_ = false;
  bool broken_ = false;
  bool ended_ = false;
  bool shutDown_ = false;
  std::string problem_;
};
