#pragma once
// What the transceiver and the protocol servers need of a request handler. The handler's class
// stands in a layer above them; this interface is its second base.

#include <memory>
#include <string>

#include "transceiver/fwd.h"

class ZrJob;

/// The receiver of complete messages. Held in shared ownership by whoever registered it and by the
/// transceiver; a server finds it by job name for each message and holds it while it is called.
class ZrMessageHandler {
 public:
  virtual ~ZrMessageHandler() = default;

  /// The job that this handler is. Its name identifies the handler. Lives as long as the handler.
  virtual ZrJob& HandlerJob() = 0;

  /// Called when the handler is registered, with no lock held. Answers whether the handler took
  /// this transceiver; it takes none while it has one.
  virtual bool AttachTransceiver(ZrTransceiver& transceiver) = 0;
  /// Called when the handler is taken out, with no lock held. Afterwards the handler must not use
  /// that transceiver any more.
  virtual void DetachTransceiver(ZrTransceiver& transceiver) = 0;

  /// Takes a complete message. `name` is the job name of the configuration head of the server it
  /// came in on; for an answer, of the request that is answered. A result other than 0 ends the
  /// message's assembly at the server. 0 says that the message means nothing to the handler: its
  /// connection is closed. The answer to a request goes out through ZrTransceiver::Send(), during
  /// this call or later and from any thread; whoever answers later keeps a reference to the
  /// request. Until then the connection takes no further request; the answer ends its turn, so that
  /// the next one may be read before this call returns. Called with no lock held, on the server's
  /// queue task, where a long run holds up all connections of that server, or on the receive job
  /// when CannotWait() has said so. Must not throw; what it throws closes the connection.
  virtual int HandleMessage(const std::string& name, std::shared_ptr<ZrXHeader> message) = 0;

  /// Whether HandleMessage() of this complete message neither waits for anything nor runs code of a
  /// host: then it may be called at once by the thread that received the message, beside messages
  /// of other connections. Without that it is called on the server's queue task, in order. No by
  /// default. Threads: any.
  virtual bool CannotWait(const ZrXHeader& /*message*/) { return false; }

  /// Brackets a call into the transceiver that this handler is attached to, which waits for the end
  /// of it before it lets the handler go. Nothing when there is none: then nothing is to be left.
  /// Threads: any.
  virtual ZrTransceiver* EnterTransceiver() { return nullptr; }
  virtual void LeaveTransceiver() {}

  /// Called once when a message's head has been read and its body is still to come, with the head's
  /// lock held. No closes the connection.
  virtual bool OnHeadComplete(ZrXHeader& head) = 0;
};
