#pragma once
// Who a received message came from and to, found once: the message and its answer carry the ends,
// so that the answer's way back needs no look-up by name.

#include <memory>

#include "transceiver/fwd.h"

/// Constant, and shared by all messages of one connection. Keeps nobody alive: a program may hold a
/// request long after its connection has gone.
struct ZrMessageEnds {
  std::weak_ptr<ZrTransceiverConnection> connection;
  std::weak_ptr<ZrServerLink> server;
  const ZrMessageHandler* handler = nullptr;  ///< For comparison only.
};
