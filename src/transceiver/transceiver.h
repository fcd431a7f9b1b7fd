#pragma once
// The hub of all network traffic of one application: it knows the request handlers, the servers it
// opened for them and every open connection, by name, and brings messages from one to the other.
// What goes on beside that has classes of its own: the I/O loops move the bytes, the housekeeper
// keeps the time limits, the pools carry outgoing requests, the progress is what a stop waits on.
// clientLock_ is held for look-ups and changes of the tables only, never while calling out.

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "base/memory_budget.h"
#include "base/server_callback.h"
#include "jobs/job.h"
#include "platform/clock.h"
#include "platform/sync.h"
#include "transceiver/fwd.h"
#include "transceiver/housekeeper.h"
#include "transceiver/io_loops.h"
#include "transceiver/outgoing_pools.h"
#include "transceiver/server_factories.h"
#include "transceiver/stop_progress.h"

/// Embedded in its owner. Threads: any; the caller holds no lock where nothing else is said.
/// Destroying it ends its servers and connections; handlers should have been removed before.
class ZrTransceiver final : public ZrJob {
 public:
  using ConnectionPointer = std::shared_ptr<ZrTransceiverConnection>;
  /// Scheduler and clock outlive the transceiver. Without factories no server can be opened. The
  /// limit, in bytes, is what all peers together may occupy; the team is that of each I/O job.
  explicit ZrTransceiver(ZrRinvalScheduler2& scheduler, ZrServerFactories factories = {},
                         const ZrClock& clock = ZrClock::System(),
                         std::uint64_t memoryLimit = ZrMemoryBudget::DefaultLimit(),
                         ZrIoTeamSize team = ZrIoTeamSize::OfMachine());
  ~ZrTransceiver() override;

  bool PostEvent(std::string_view target, ZrJobEvent event) override;
  /// Registers and attaches a handler. Returns it, or nothing when its name is registered already.
  virtual std::shared_ptr<ZrMessageHandler> AddClient(std::shared_ptr<ZrMessageHandler> client);
  /// Takes a handler out and detaches it: messages for it are dropped, its outgoing connections
  /// end. Its servers stay. Waits for answers that it is handling.
  virtual void RemoveClient(const std::shared_ptr<ZrMessageHandler>& client);
  /// Sends a message for a registered handler: an answer along its route, written before this
  /// returns as far as the socket takes it, a request through the handler's pool for its target.
  /// `target` is the joined task of the exchange; the flag means nothing. Returns the message's
  /// name, or ZrJob::CommonErrorName() when nothing was sent.
  virtual std::string Send(ZrMessageHandler& client, std::shared_ptr<ZrXHeader> message,
                           const ZrServerCallback& callback, const std::string& target,
                           int flag = 1);
  /// What Send() does with an answer. No: nothing was sent.
  bool SendAnswer(ZrMessageHandler& client, const std::shared_ptr<ZrXHeader>& message,
                  const std::string& target);
  /// Opens the listening server that the head describes and shares, once, for a registered handler.
  /// Returns the head's name, or ZrJob::CommonErrorName() for an unknown handler or protocol kind.
  /// Throws what the server's construction throws (ZrException_SSL for bad certificates).
  virtual std::string OpenServer(ZrMessageHandler& client, std::shared_ptr<ZrXServerHeader> head,
                                 const ZrServerCallback& callback);

  /// Takes a server under the housekeeper's watch. RemoveServer() drops it again.
  void AddServer(std::shared_ptr<ZrServerLink> server);
  void RemoveServer(const std::string& name);
  /// Look-ups by job name; nothing when there is none.
  std::shared_ptr<ZrMessageHandler> FindClient(const std::string& name);
  ConnectionPointer FindConnection(const std::string& name);
  std::shared_ptr<ZrServerLink> FindServer(const std::string& name);
  /// Both ends of a message in one look-up.
  struct Ends {
    ConnectionPointer connection;
    std::shared_ptr<ZrMessageHandler> client;
  };
  Ends FindEnds(const std::string& connectionName, const std::string& clientName);
  std::size_t ConnectionCount();
  /// The I/O jobs serve both until RemoveConnection(). A name that is known keeps its first pair.
  /// Returns the connection's name. Throws ZrException "socket and connection must be defined".
  std::string AddConnection(std::shared_ptr<ZrSocketIPvx> socket, ConnectionPointer connection);
  /// Drops a connection at once, with what it still had to send, and tells its server, the server's
  /// owner and the connection by an event with code 2. Ignores unknown names, and the flag.
  void RemoveConnection(const std::string& name, bool flag = false);
  void RemoveConnection(ZrTransceiverConnection& connection);
  /// The same in a way that the peer cannot take for an end in order.
  void ResetConnection(ZrTransceiverConnection& connection);
  /// Ends a connection in order: reading stops, what is queued is sent, the sending side is shut
  /// down, and it goes with the peer's end or a moment later. An expired one goes at once.
  void FinishConnection(ZrTransceiverConnection& connection);

  // Of the I/O loops and the stop's progress; see there.
  void FlushConnection(ZrTransceiverConnection& connection) { loops_.Flush(connection); }
  void FlushConnection(ZrTransceiverConnection& to, ZrStringBuf& bytes) { loops_.Flush(to, bytes); }
  void WakeSender() { loops_.FlushAllLater(); }
  void ResumeReading(ZrTransceiverConnection& connection) { loops_.ResumeReading(connection); }
  void StopIO() { loops_.Stop(); }
  void NoteProgress() { progress_.Note(); }

  /// Takes the server out of its joined task; its owner gets code 5: the exchange is finished.
  void ReleaseServerTask(const std::string& serverName);
  /// Writes the "logging" entry of a record of kind 7 to standard output, one write a line.
  void PrintLogRecord(const ZrServerCallback_t& record);

  // Stop, step by step.
  void StopAccepting();  ///< No further peer is accepted,
  /// the requests in progress are answered and their answers sent, if that happens in time
  bool WaitForAnswers(std::chrono::nanoseconds limit);
  void AbandonAnswers() { progress_.Abandon(); }  ///< (given up by another thread, for good),
  void StopServers();  ///< and no server runs any more. Waits for messages being handled.

  /// Hands a server that lost its last owner to the housekeeper, which waits for its tasks. No: it
  /// does not run any more, and the caller ends the server.
  bool EndLater(std::function<void()> end) { return housekeeper_.EndLater(std::move(end)); }
  void WakeHousekeeper() { housekeeper_.Wake(); }  ///< It looks at all time limits now.
  const ZrClock& Clock() const { return clock_; }
  ZrOutgoingPools& OutgoingRequests() { return pools_; }
  /// What all peers of this transceiver together may occupy; everything kept for one counts there.
  const std::shared_ptr<ZrMemoryBudget>& Memory() const { return loops_.Memory(); }

 private:
  struct ClientRecord {
    std::shared_ptr<ZrMessageHandler> client;
    std::set<std::string> servers;  // names of the option heads opened for it
  };

  void Drop(ZrTransceiverConnection& connection);
  std::vector<std::shared_ptr<ZrServerLink>> Servers();
  bool IsBusy();
  std::int64_t CheckServers();
  std::int64_t CheckMemory();
  std::vector<ConnectionPointer> Connections();
  void CheckConnection(const ConnectionPointer& connection);

  ZrRinvalScheduler2& scheduler_;
  const ZrServerFactories factories_;
  const ZrClock& clock_;
  const std::string housekeepingTask_;

  ZrMutex clientLock_;
  std::map<std::string, ClientRecord> clients_ ZR_GUARDED_BY(clientLock_);
  std::unordered_map<std::string, ConnectionPointer> connections_ ZR_GUARDED_BY(clientLock_);
  std::unordered_map<std::string, std::shared_ptr<ZrServerLink>> servers_
      ZR_GUARDED_BY(clientLock_);
  ZrStopProgress progress_;
  ZrHousekeeper housekeeper_;
  ZrIoLoops loops_;
  ZrOutgoingPools pools_;
};
