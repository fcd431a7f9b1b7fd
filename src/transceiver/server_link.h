#pragma once
// What the transceiver needs of the servers it holds. The server classes stand in a layer above it;
// this interface is a base of theirs.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "transceiver/fwd.h"

class ZrJobWithTimeout;

/// A server as the transceiver sees it. Held in shared ownership.
class ZrServerLink {
 public:
  virtual ~ZrServerLink() = default;

  /// The job that this server is; its name identifies the server. Lives as long as the server.
  virtual ZrJobWithTimeout& ServerJob() = 0;
  /// The job that hears of the server's connections and of its time limit.
  virtual std::string OwnerName() const = 0;

  /// Whether its time limit can pass at all.
  virtual bool CanExpire() const = 0;

  /// Starts it: a listening server submits its accept loop and returns at once, a connecting one
  /// opens its connection. Answers whether that went well.
  virtual bool start() = 0;
  /// Ends the acceptance of connections; returns at once. Connections that are open live on.
  virtual void stop() = 0;
  /// Stops the server, ends all its tasks and waits for them. No message is handled and no peer is
  /// accepted after it. The caller holds no lock. Idempotent.
  virtual void EndTasks() = 0;

  /// Bytes have arrived on these connections, which the server deferred to the end of the receive
  /// job's pass. It handles what cannot wait and leaves the rest to its own task. Called on the
  /// receive job.
  virtual void HandleArrived(
      ZrReceivePass& pass,
      std::span<const std::shared_ptr<ZrTransceiverConnection>> connections) = 0;

  /// Sends a message head with its body on a connection of this server; without connection it is
  /// dropped. Answers whether the server is still in service. The caller holds no lock. Threads:
  /// any.
  virtual bool SendHead(const std::shared_ptr<ZrTransceiverConnection>& connection,
                        const std::shared_ptr<ZrXHeader>& head) = 0;
  /// How an answer came to its end whose head and body another than this server has sent.
  enum class Ended {
    kWhole,  ///< complete
    kCut,    ///< not; the connection closes behind what is queued
    kReset,  ///< not; the connection is reset, as its end would be taken for that of the body
  };
  /// Such an answer is over: logs it with its bytes and ends the connection's turn. The caller
  /// holds no lock. Threads: any.
  virtual void EndAnswer(const std::shared_ptr<ZrTransceiverConnection>& /*connection*/,
                         const std::shared_ptr<ZrXHeader>& /*head*/, std::uint64_t /*bytes*/,
                         Ended /*ended*/) {}
  /// SendHead() by the connection's name.
  virtual bool SendHead(const std::string& connectionName,
                        const std::shared_ptr<ZrXHeader>& head) = 0;
};

/// The pool that carries one handler's requests to one target, as the transceiver sees it.
class ZrOutgoingLink {
 public:
  virtual ~ZrOutgoingLink() = default;

  /// The job that this pool is; its name identifies the pool.
  virtual ZrJobWithTimeout& OutgoingJob() = 0;
  /// Hands a request to an idle worker, to a new one, or leaves it waiting. Returns the head when a
  /// worker took it or none could be started (`startFailed` is then set), and nothing when it
  /// waits.
  virtual std::shared_ptr<ZrXHeader> submit(std::shared_ptr<ZrXHeader> head, bool& startFailed,
                                            bool inFront) = 0;
  /// Nobody waits for the answer any more: a request that waits is forgotten, the connection of one
  /// that is out goes. The sender may still be told of its end. The caller holds no lock.
  virtual void Withdraw(const std::shared_ptr<ZrXHeader>& head) = 0;
  /// Holds neither a request nor a connection at this moment. Takes no lock.
  virtual bool IsUnused() const = 0;
  /// Who is about to hand it a request. Goes up under the transceiver's lock only.
  std::atomic<std::size_t> senders{0};
  /// Takes no further request and calls off connections that are being opened; returns at once.
  virtual void EndStarts() = 0;
  /// Stops the pool's workers, ends all tasks and waits for them. The caller holds no lock.
  virtual void EndTasks() = 0;
};
