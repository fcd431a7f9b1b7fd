#pragma once
// The TCP layer of a server. A listening one runs the accept loop as a scheduled task: it binds the
// port of its configuration head, tries again every 30 s when that is taken, and makes a connection
// of every peer. A connecting one opens one connection to the host of its target head.

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "base/exception.h"
#include "base/send_failure.h"
#include "platform/poller.h"
#include "platform/sync.h"
#include "servers/base_server.h"
#include "transceiver/fwd.h"

class ZrSocketIPvx;

/// No connection can be made on a socket, and why.
class ZrConnectionFailure : public ZrException {
 public:
  ZrConnectionFailure(ZrSendFailureKind why, std::string message)
      : ZrException(std::move(message)), kind(why) {}
  const ZrSendFailureKind kind;
};

/// Threads: any. Made with zr::MakeServer().
class ZrTransceiverServerL0Socket : public ZrTransceiverServerL0 {
 public:
  /// Peers that may wait for the accept loop. Sixteen were enough for its own work; but a browser
  /// that opens more at once would have its connects dropped and repeated after whole seconds.
  static constexpr int kBacklog = 1024;
  static constexpr std::chrono::milliseconds kBindRetry{30'000};
  /// The pause when the process has no descriptor left for a peer.
  static constexpr std::chrono::milliseconds kExhaustedPause{50};

  /// A listening server; it shares the configuration head.
  ZrTransceiverServerL0Socket(ZrServerSetup setup, std::shared_ptr<ZrXServerHeader> configuration);
  /// A connecting server; it shares the target head.
  ZrTransceiverServerL0Socket(ZrServerSetup setup, std::shared_ptr<ZrXHeader> target);
  ~ZrTransceiverServerL0Socket() override;

  /// Listening: submits the accept loop. Connecting: opens the connection and registers it; takes
  /// as long as the lookup, the connect and, with TLS, the handshake. Throws ZrException when a
  /// listening server finds no thread for its work.
  bool start() override;
  /// The accept loop ends at once and closes its sockets.
  void stop() override;
  void EndTasks() override;
  /// A worker whose connection lives does not expire: sending is traffic of the connection, which
  /// has a time limit of its own.
  bool HasExpired() override;
  ZrSendFailure StartFailure() const override;

  /// Makes the connection object for a connected socket. The record describes the peer. Throws
  /// ZrConnectionFailure when none can be made.
  virtual std::shared_ptr<ZrTransceiverConnection> createConnection(
      ZrTransceiver& transceiver, const std::string& serverName, ZrServerCallback_t record,
      const std::shared_ptr<ZrSocketIPvx>& socket);

 protected:
  /// How a peer is named, by the numeric name of its address.
  virtual std::string PeerText(std::string numericName) const { return numericName; }
  /// An option of the configuration head; the default in a connecting server.
  std::string Option(std::string_view name, std::string_view defaultValue = {}) const;
  /// Whether a connecting start is to be given up: it was stopped, or takes too long.
  bool IsStartCancelled() const;
  /// Tells the pool that this worker's request got no answer. The worker is of no further use.
  void ReportUnanswered(const ZrSendFailure& failure);

 private:
  bool StartConnecting();
  bool FailStart(ZrSendFailureKind kind, std::string detail);
  void AcceptLoop();
  bool Listen(ZrSocketIPvx& listener, ZrServerCallback_t& record);
  void AcceptWaiting(ZrSocketIPvx& listener, const ZrServerCallback_t& listening);
  void TakePeer(std::shared_ptr<ZrSocketIPvx> socket, const ZrServerCallback_t& listening);
  bool Running() const { return running_.load(std::memory_order_acquire); }
  void Pause(std::chrono::milliseconds time) ZR_EXCLUDES(stopLock_);

  // Constant after construction.
  const std::shared_ptr<ZrXServerHeader> configuration_;  // listening servers
  const std::shared_ptr<ZrXHeader> target_;               // connecting servers
  const std::string type_;
  const std::size_t connectionCap_;
  std::atomic<bool> startStopped_{false};       // stop() was called
  std::atomic<std::int64_t> startDeadline_{0};  // of the start under way; steady clock, ns
  ZrSendFailure startFailure_ ZR_GUARDED_BY(lock_);

  ZrMutex stopLock_;
  ZrCondition stopped_;  // running_ was cleared
  std::uint64_t listenerTask_ ZR_GUARDED_BY(stopLock_) = 0;
  std::atomic<bool> running_;  // changes under stopLock_
  std::atomic<bool> listenerBegan_{false};
  std::optional<ZrPoller> poller_;  // listening servers: for peers on both sockets, or for stop()
};
