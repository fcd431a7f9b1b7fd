#pragma once
// The server of the system's own protocol: HTTP under another name.

#include <utility>

#include "http/protocol_kind.h"
#include "servers/http_server.h"

class ZrTransceiverServerL1QUARN : public ZrTransceiverServerL1HTTP {
 public:
  /// Listening or connecting, with the arguments of the base.
  template <class... Args>
  explicit ZrTransceiverServerL1QUARN(Args&&... args)
      : ZrTransceiverServerL1HTTP(std::forward<Args>(args)...) {
    protocolKind_ = zr::kProtocolQuarn;
    semantics_ = &ZrSemantics::Minimal();  // the protocol is that dialect
  }
};
