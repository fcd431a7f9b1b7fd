#pragma once
// What the I/O loops keep of one registered connection. The lanes hold it by its token; the
// connection holds it as its way back to them, so that output and resumed reading need no look-up.
// It lives from ZrIoLoops::Register() to Unregister(), and as long as a pass works on it.

#include <atomic>
#include <cstdint>
#include <memory>

#include "transceiver/fwd.h"

class ZrIoLane;
class ZrSocketIPvx;

struct ZrIoRegistration {
  /// One direction: the lane whose thread serves it, and what that watches the socket for.
  struct Direction {
    std::shared_ptr<ZrIoLane> lane;  ///< none: it stands in none
    unsigned interest = 0;
    bool watched = false;
  };

  // Constant once registered.
  std::shared_ptr<ZrSocketIPvx> socket;  ///< connected
  std::shared_ptr<ZrTransceiverConnection> connection;
  std::uint64_t token = 0;  ///< names it in the lanes; never used again

  // Guarded by the connection's job lock.
  Direction input;           ///< stands in a lane for its whole life
  Direction output;          ///< stands in one while the send job waits for room on the socket
  bool paused = false;       ///< not watched for input
  bool starved = false;      ///< paused until there is memory
  bool outputEnded = false;  ///< the socket is shut down for sending

  std::atomic<bool> lost{false};  ///< the system would not watch it again: it is to be removed
};
