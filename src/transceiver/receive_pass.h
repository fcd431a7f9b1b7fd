#pragma once
// One pass of the receive job: what one wait reported is read, and then handed to the servers by
// this very thread, so that a message that cannot wait for anything is answered without a hand-over
// to the server's own task. A server decides for itself what it handles here; the rest goes over
// its queue as ever.

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "base/batch.h"
#include "transceiver/fwd.h"

/// Stands on the receive job's stack for the length of a pass. Threads: that one.
class ZrReceivePass {
 public:
  using ConnectionPointer = std::shared_ptr<ZrTransceiverConnection>;
  using ServerPointer = std::shared_ptr<ZrServerLink>;

  ZrReceivePass() noexcept;
  ~ZrReceivePass();
  ZrReceivePass(const ZrReceivePass&) = delete;
  ZrReceivePass& operator=(const ZrReceivePass&) = delete;

  /// The calling thread's pass, nothing on any other thread.
  static ZrReceivePass* Current() noexcept;

  /// The connection that the thread works on from now on; none when empty.
  void WorkOn(ConnectionPointer connection) { current_ = std::move(connection); }
  /// For a server that was told of bytes on the connection of that name: it will be asked to handle
  /// them in this pass. No: the pass is not about that connection, or has given it enough; use the
  /// queue.
  [[nodiscard]] bool Defer(const ServerPointer& server, const std::string& connectionName);
  /// Has the servers handle what was deferred, and what that gave rise to. `giveUp` is called with
  /// each connection of a server that could not.
  void HandOut(const std::function<void(ZrTransceiverConnection&)>& giveUp);

 private:
  // Messages of one connection that one pass handles at most: others have their turn.
  static constexpr int kRounds = 8;

  using Arrivals = std::vector<std::pair<ServerPointer, std::vector<ConnectionPointer>>>;

  ZrBatch batch_;
  ConnectionPointer current_;
  Arrivals arrivals_;  // by server; there are few
  int round_ = 0;
};
