#pragma once
// One pass of the receive job: what one wait reported is read, the servers are told of it, and then
// handle it by this very thread, so that a message that cannot wait for anything is answered
// without a hand-over to the server's own task. A server decides for itself what it handles here;
// the rest goes over its queue as ever. The object lasts for all passes of the job, and keeps its
// memory between them.

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "base/batch.h"
#include "jobs/job_event.h"
#include "platform/sync.h"
#include "transceiver/fwd.h"

/// Stands on the receive job's stack. Threads: that one.
class ZrReceivePass {
 public:
  using ConnectionPointer = std::shared_ptr<ZrTransceiverConnection>;
  using ServerPointer = std::shared_ptr<ZrServerLink>;

  /// The passes of all threads take turns in telling their servers, as a server hears of one thing
  /// at a time: what it cannot be told at once would go the longer way. The lock outlives the pass.
  explicit ZrReceivePass(ZrMutex& telling) noexcept;
  ~ZrReceivePass();
  ZrReceivePass(const ZrReceivePass&) = delete;
  ZrReceivePass& operator=(const ZrReceivePass&) = delete;

  /// The calling thread's pass, nothing on any other thread.
  static ZrReceivePass* Current() noexcept;

  /// Whether the calling thread is in the middle of a pass: others wait for it.
  static bool IsUnderWay() noexcept {
    const ZrReceivePass* const pass = Current();
    return pass != nullptr && pass->current_ != nullptr;
  }
  /// The connection that is read now.
  void Read(const ConnectionPointer& connection) {
    current_ = connection;
    reading_ = true;
  }
  /// The connection whose message the thread handles from now on.
  void WorkOn(const ConnectionPointer& connection) { current_ = connection; }
  /// Bytes have come on the connection that is read: its server is told at the end of the reading,
  /// with all others of it. No: it is another one; tell it now.
  [[nodiscard]] bool Announce(ZrTransceiverConnection& connection);
  /// For a server that was told of bytes on the connection of that name: it will be asked to handle
  /// them in this pass. No: the pass is not about that connection, or has given it enough; use the
  /// queue.
  [[nodiscard]] bool Defer(const ServerPointer& server, const std::string& connectionName);
  /// Ends the reading: tells the servers, has them handle what they deferred, and what that gave
  /// rise to. `giveUp` is called with each connection of a server that could not.
  void HandOut(const std::function<void(ZrTransceiverConnection&)>& giveUp);
  /// How long to wait for the next pass, below zero for ever: a pass in which nothing is read then
  /// lets go of what the batches before it left.
  std::chrono::nanoseconds Patience() const {
    return batch_.IsLeft() ? ZrBatch::kRestAfter : std::chrono::nanoseconds(-1);
  }

  /// For the time of a server's work in the pass: the handler is between EnterTransceiver(), which
  /// answered that, and LeaveTransceiver(), so that it need not be for each message.
  void Enter(ZrMessageHandler* handler, ZrTransceiver* transceiver) {
    entered_ = {handler, transceiver};
  }
  /// The transceiver of that handler, nothing when it has not entered here.
  ZrTransceiver* EnteredOf(const ZrMessageHandler& handler) const {
    return entered_.first == &handler ? entered_.second : nullptr;
  }

 private:
  // Messages of one connection that one pass handles at most: others have their turn.
  static constexpr int kRounds = 8;

  // What one server is to be told of; so many of the events are in use.
  struct News {
    std::string receiver;
    std::size_t count = 0;
    std::vector<ZrJobEvent> events;
    std::vector<ConnectionPointer> connections;
  };
  struct Arrivals {
    ServerPointer server;
    std::vector<ConnectionPointer> connections;
  };

  News& NewsFor(const std::string& receiver);
  void Tell(News& news, const std::function<void(ZrTransceiverConnection&)>& giveUp);
  ConnectionPointer Awaited(const std::string& connectionName);

  ZrMutex& telling_;
  ZrBatch batch_;
  ConnectionPointer current_;
  bool reading_ = false;
  std::vector<News> news_;          // by server; there are few
  News* told_ = nullptr;            // whose events are being delivered
  std::size_t next_ = 0;            // the one of them that is expected next
  std::vector<Arrivals> arrivals_;  // by server; behind them free ones, kept for their memory
  std::vector<Arrivals> handled_;
  std::pair<ZrMessageHandler*, ZrTransceiver*> entered_{};
  int round_ = 0;
};
