#pragma once
// The layer that turns events into a server's work.

#include "base/send_failure.h"
#include "servers/server.h"

class ZrTransceiverServerL0 : public ZrTransceiverServer {
 public:
  using ZrTransceiverServer::ZrTransceiverServer;

  /// Code 8 (bytes have arrived on the connection the event names): wake(). Code 2 (that connection
  /// is closed): a server that is not persistent has done its work. Others are ignored.
  bool ReceiveEvent(const ZrJobEvent& event) override ZR_REQUIRES(lock_);
  /// The connection of a connecting server, whose name is its result; nothing when it has none yet
  /// or the transceiver has let it go.
  std::shared_ptr<ZrTransceiverConnection> OwnConnection() const ZR_EXCLUDES(lock_);
  /// Why the last start() of a connecting server answered no.
  virtual ZrSendFailure StartFailure() const {
    return {ZrSendFailureKind::kNotSent, "the connection could not be opened"};
  }

 protected:
  void SetOwnConnection(const std::shared_ptr<ZrTransceiverConnection>& connection)
      ZR_EXCLUDES(lock_);

 private:
  std::weak_ptr<ZrTransceiverConnection> ownConnection_ ZR_GUARDED_BY(lock_);
};
