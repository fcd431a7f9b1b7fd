#pragma once
// What a server tells its owner: that it listens, that a peer was accepted, that a message went
// out.

#include <cstdint>
#include <functional>

#include "base/option_map.h"

/// One report of a server. The owner gets it by reference on the reporting server's thread.
struct ZrServerCallback_t {
  /// The values of `kind`.
  enum Kind : std::int32_t {
    kConnectionOpened = 0,    ///< a connecting server has its connection
    kServerCreated = 1,       ///< a server was opened: "protocol", "ID", "roll"
    kServerGone = 2,          ///< a server is being destroyed: "ID", "roll"
    kBindFailed = 3,          ///< the port cannot be bound; the server waits and tries again
    kListening = 4,           ///< the server listens: "address", "port", "ID", "protocolstring"
    kConnectionAccepted = 5,  ///< a peer was taken: the remote and the local address and port
    kBytesSent = 6,           ///< a DirectSocket server sent a body: "ID", "bytes", ...
    kMessageLogged = 7,       ///< a message of the HTTP family went out: "logging" is its line
    kRequestFailed = 8,       ///< a request was not answered: "ID", "url", "reason", "error"
  };

  std::int32_t kind = 0;
  ZrOptionMap info;
};

/// The owner's end of the reports. Its answer is not looked at, what it throws is dropped; it may
/// be called on any thread, and by several servers at once.
using ZrServerCallback = std::function<bool(ZrServerCallback_t&)>;
