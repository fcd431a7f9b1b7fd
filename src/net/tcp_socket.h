#pragma once
// One TCP endpoint: either a listening one, with up to two sockets on the same port (IPv6, which
// also takes IPv4 peers, and IPv4), or a connected one, accepted or opened by connect. It buffers
// nothing and speaks no protocol. Failures are small codes and lines on standard error.
// Sockets are non-blocking, close-on-exec and never raise SIGPIPE; interrupted calls are retried.
// Threads: one at a time. A listening endpoint belongs to its accept loop, a connected one to the
// connection that it is registered with.

#include <array>
#include <chrono>
#include <cstddef>
#include <functional>
#include <string>

#include "base/host_info.h"
#include "net/byte_line.h"
#include "platform/descriptor.h"
#include "platform/socket.h"

/// What the endpoint's operations answer.
enum class ZrSocketResult {
  kSuccess = 0,         ///< Done. receive also answers it for "nothing": see receive.
  kListenFailed = 1,    ///< No address of the port could be resolved, bound or listened on.
  kConnectFailed = 2,   ///< The host was not found or no address of it took the connection.
  kSendIncomplete = 3,  ///< Only a part was sent, or nothing.
};

class ZrSocketIPvx {
 public:
  /// Decides on a peer by its numeric address; no closes it. The record may be changed.
  using PeerFilter = std::function<bool(ZrHostInfo_t&)>;

  /// How long the lookup and all attempts of connect may take together.
  static constexpr std::chrono::milliseconds kConnectLimit{20'000};

  /// The argument has no effect.
  explicit ZrSocketIPvx(int unused = 0);
  /// A connected endpoint whose bytes go over a line of the caller's, which lives longer.
  explicit ZrSocketIPvx(ZrByteLine& line);
  ZrSocketIPvx(const ZrSocketIPvx&) = delete;
  ZrSocketIPvx& operator=(const ZrSocketIPvx&) = delete;
  /// Shuts both sockets down and closes them.
  virtual ~ZrSocketIPvx();

  /// Hands `length` bytes to the system in one call. `sent` is what it took, 0 on failure. Answers
  /// kSuccess when that was all of them, else kSendIncomplete. Without a socket: a line on standard
  /// error, kSuccess, and `sent` is not touched.
  virtual ZrSocketResult send(const char* buffer, std::size_t length, std::size_t& sent);
  /// Takes what has arrived, at most `capacity` bytes (above 0); answers kSuccess always. With
  /// `received` 0: wouldBlock() when nothing has arrived, closed() for the peer's orderly end, and
  /// otherwise a failure (a reset, too), whose number is in lastError() and on standard error.
  virtual ZrSocketResult receive(char* buffer, std::size_t capacity, std::size_t& received);
  /// The same after waiting at most a millisecond; `received` is 0 when nothing came.
  virtual ZrSocketResult receiveIfReady(char* buffer, std::size_t capacity, std::size_t& received);
  /// The peer's numeric address; empty on an endpoint that no accept has filled.
  virtual std::string peerAddress() const;
  /// The peer's numeric port, likewise.
  virtual std::string peerPort() const;

  /// Listens on the wildcard addresses of both families, whatever the address says. Port 0 becomes
  /// the port that the system chose. Restarting on a port works at once; one that another socket
  /// listens on is refused. Answers kSuccess when at least one family listens, else kListenFailed
  /// after a line on standard error.
  [[nodiscard]] ZrSocketResult listen(const std::string& address, int& port, int backlog);

  /// The same on the addresses of that host alone, an IPv6 and an IPv4 one on the same port where a
  /// name has both. kListenFailed also when one of them is taken; listenErrorText() says why.
  /// `cancelled` ends the look-up of a name.
  [[nodiscard]] ZrSocketResult listenAt(const std::string& host, int& port, int backlog,
                                        const std::function<bool()>& cancelled = {});

  /// Waits for a peer and puts it into `newSocket`, a fresh object. Returns the new descriptor, or
  /// -1: nobody came within the limit (twice the limit when both families listen), the filter
  /// refused, or it failed; lastAccept() tells descriptors that ran out apart. A limit of 0 only
  /// looks. An empty filter throws std::bad_function_call.
  int accept(ZrSocketIPvx& newSocket, int timeoutMillis, const PeerFilter& filter);

  /// Opens a connection: looks the host up and tries its addresses in turn, within `limit`
  /// altogether. Answers kSuccess, or kConnectFailed after a line on standard error;
  /// connectFailure() and connectErrorText() then say why. `cancelled` (may be empty) is asked now
  /// and then; yes ends the attempt.
  [[nodiscard]] ZrSocketResult connect(const std::string& host, int port,
                                       std::chrono::milliseconds limit = kConnectLimit,
                                       const std::function<bool()>& cancelled = {});
  /// No lines on standard error from now on: the owner reports failures itself.
  void setQuiet(bool quiet) noexcept { quiet_ = quiet; }

  /// Waits until the descriptor has something to read and says so. A wait that fails counts as
  /// readable, so that the next call on the descriptor shows why.
  bool waitReadable(int timeoutMillis, int descriptor);

  /// The socket of a connected endpoint, the IPv6 one of a listening endpoint; -1 for none. For
  /// waiting on; the object keeps it.
  int primaryDescriptor() const noexcept { return primary_.Get(); }
  /// The IPv4 socket of a listening endpoint; -1 for none.
  int secondaryDescriptor() const noexcept { return secondary_.Get(); }
  /// The port that a listening endpoint is bound to; -1 before.
  int port() const noexcept { return port_; }
  bool listening() const noexcept { return listening_; }
  /// Set by accept on the object it filled.
  bool accepted() const noexcept { return accepted_; }
  /// The bytes of a connected endpoint, for whoever moves them itself. Lives as long as the object.
  ZrByteLine& Line() noexcept { return *line_; }
  /// True from construction; accept and connect clear it, the peer's orderly end sets it, and a
  /// failure of receive clears it again: what failed did not end in order.
  bool closed() const noexcept { return closed_; }
  /// The last receive found nothing although nothing is wrong.
  bool wouldBlock() const noexcept { return wouldBlock_; }
  /// The error number of the last receive that failed; 0 when none has.
  int lastError() const noexcept { return lastError_; }
  /// Why the last connect failed, and the system's text for it.
  ZrConnectFailure connectFailure() const noexcept { return connectFailure_; }
  const std::string& connectErrorText() const noexcept { return connectErrorText_; }
  /// What is wrong with the address of the last listenAt; empty where it is the port.
  const std::string& listenErrorText() const noexcept { return listenErrorText_; }
  /// How the last accept of this listening endpoint ended.
  ZrAcceptStatus lastAccept() const noexcept { return lastAccept_; }

 private:
  static constexpr std::size_t kHostCapacity = 1025;
  static constexpr std::size_t kServiceCapacity = 32;

  void Complain(const std::string& line) const;
  ZrDescriptor openFirst(ZrAddressFamily family, const ZrResolution& resolution, int backlog,
                         int& port);
  bool openAll(const ZrResolution& resolution, int backlog, int& port);
  int acceptStep(int listener, ZrSocketIPvx& newSocket, const PeerFilter& filter);

  int port_ = -1;
  bool listening_ = false;
  bool closed_ = true;
  bool ready_ = false;  // the outcome of the last wait
  int lastError_ = 0;
  bool accepted_ = false;
  ZrDescriptor primary_;
  ZrDescriptor secondary_;
  ZrSocketLine ownLine_{primary_};
  ZrByteLine* line_ = &ownLine_;
  std::array<char, kHostCapacity> peerHost_{};
  std::array<char, kServiceCapacity> peerService_{};
  bool wouldBlock_ = false;
  ZrAcceptStatus lastAccept_ = ZrAcceptStatus::kNoPeer;
  bool quiet_ = false;
  ZrConnectFailure connectFailure_ = ZrConnectFailure::kNone;
  std::string connectErrorText_;
  std::string listenErrorText_;
};
