#pragma once
// The server of raw bytes: what arrives is handed out as it comes, what is sent has no head.

#include <memory>
#include <string>
#include <utility>

#include "http/protocol_kind.h"
#include "servers/tcp_server.h"
#include "servers/worker_exchange.h"

/// Threads: any. Made with zr::MakeServer().
class ZrTransceiverServerL1DirectSocket : public ZrTransceiverServerL0Socket {
 public:
  /// Listening or connecting, with the arguments of the base.
  template <class... Args>
  explicit ZrTransceiverServerL1DirectSocket(Args&&... args)
      : ZrTransceiverServerL0Socket(std::forward<Args>(args)...) {
    protocolKind_ = zr::kProtocolSocket;
  }

  bool ReceiveEvent(const ZrJobEvent& event) override ZR_REQUIRES(lock_);
  void wake(const std::string& connectionName) override;
  /// Hands out all bytes that have arrived as the body of one message.
  void processItem(const std::string& connectionName, const std::string& clientName) override;
  /// Sends the body and reports kind 6.
  using ZrTransceiverServer::SendHead;
  bool SendHead(const std::shared_ptr<ZrTransceiverConnection>& connection,
                const std::shared_ptr<ZrXHeader>& head) override;

 private:
  using ConnectionPointer = std::shared_ptr<ZrTransceiverConnection>;

  // A worker's request that is out.
  struct Asked {
    const ConnectionPointer connection;
  };
  using AskedPointer = std::shared_ptr<Asked>;

  /// The end of a worker's connection: the rest of what it received, or no answer.
  void EndConnection(ZrTransceiver& transceiver, const AskedPointer& asked,
                     ZrMessageHandler* client);
  /// Answers whether there was anything. A handler that failed had it.
  bool HandOut(const ConnectionPointer& connection, ZrMessageHandler& client);
  /// Whatever fails, the caller goes on.
  void Write(ZrTransceiver& transceiver, ZrTransceiverConnection& connection,
             ZrXHeader& head) noexcept;

  ZrWorkerExchange<Asked> exchange_;  // workers only
};
