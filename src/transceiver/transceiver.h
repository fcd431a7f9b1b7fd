#pragma once
// The hub of all network traffic of one application: it holds the request handlers, the servers it
// opened for them and every open connection, and moves the bytes. One receive job waits for input
// of all connections and hands it to them; answers are written at once by the thread that made
// them, and one send job waits for room on the sockets that refused some of it. A thread of its own
// keeps house: it ends servers and connections whose time limit has passed.
//
// Locks. clientLock_ guards who is there, ioLock_ which sockets are watched. Both are held for
// lookups and changes of the maps only: handlers, servers and connections are called, started and
// destroyed with neither held. Order: job locks, clientLock_, ioLock_, the registry's.

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "base/memory_budget.h"
#include "base/server_callback.h"
#include "jobs/job.h"
#include "platform/clock.h"
#include "platform/poller.h"
#include "platform/sync.h"
#include "platform/thread.h"
#include "transceiver/connection.h"
#include "transceiver/fwd.h"
#include "transceiver/server_factories.h"

class ZrRinvalScheduler2;
class ZrSocketIPvx;

/// Embedded in its owner. Threads: any, where nothing else is said. Destroying it ends its servers
/// and connections; handlers should have been removed before.
class ZrTransceiver final : public ZrJob {
 public:
  /// The scheduler runs the I/O jobs; scheduler and clock outlive the transceiver. Starts the
  /// housekeeping thread. Without factories no server can be opened.
  explicit ZrTransceiver(ZrRinvalScheduler2& scheduler, ZrServerFactories factories = {},
                         const ZrClock& clock = ZrClock::System());
  ~ZrTransceiver() override;

  /// Hands the event to the job registry for the job of that name.
  bool PostEvent(std::string_view target, ZrJobEvent event) override;

  /// Registers a handler and attaches it to this transceiver. Returns the handler, or nothing when
  /// one of its name is registered already.
  virtual std::shared_ptr<ZrMessageHandler> AddClient(std::shared_ptr<ZrMessageHandler> client);
  /// Takes a handler out and detaches it. Its servers stay; messages for it are dropped, and its
  /// outgoing connections end. Waits for answers that it is handling.
  virtual void RemoveClient(const std::shared_ptr<ZrMessageHandler>& client);
  /// Sends a message for a registered handler. An answer goes back along its route: to the server
  /// and the connection that the request came in on, written before this returns as far as the
  /// socket takes it. A request goes out through the handler's pool for its target URL. The target
  /// name is stored in the message; it is the joined task that the exchange belongs to. Returns the
  /// message's name, or ZrJob::CommonErrorName() when nothing was sent. The caller holds no lock.
  virtual std::string Send(ZrMessageHandler& client, std::shared_ptr<ZrXHeader> message,
                           const ZrServerCallback& callback, const std::string& target, int flag);
  /// Opens a listening server for a registered handler: the kind comes from the configuration head,
  /// which the server shares. Reports the new server through the callback and returns the head's
  /// name, or ZrJob::CommonErrorName() for an unknown handler or protocol kind. A head that this
  /// handler has opened already opens nothing more. Throws what the server's construction throws
  /// (ZrException_SSL for bad certificates). The caller holds no lock.
  virtual std::string OpenServer(ZrMessageHandler& client,
                                 std::shared_ptr<ZrXServerHeader> configuration,
                                 const ZrServerCallback& callback);

  /// Takes a server under the housekeeper's watch. RemoveServer() drops it again.
  void AddServer(std::shared_ptr<ZrServerLink> server);
  void RemoveServer(const std::string& name);
  /// Lookups by job name; nothing when there is none.
  std::shared_ptr<ZrMessageHandler> FindClient(const std::string& name);
  std::shared_ptr<ZrTransceiverConnection> FindConnection(const std::string& name);
  /// Both ends of a message in one lookup.
  struct Ends {
    std::shared_ptr<ZrTransceiverConnection> connection;
    std::shared_ptr<ZrMessageHandler> client;
  };
  Ends FindEnds(const std::string& connectionName, const std::string& clientName);
  std::shared_ptr<ZrServerLink> FindServer(const std::string& name);
  std::size_t ConnectionCount();

  /// Registers a connected socket and its connection; the I/O jobs serve both until
  /// RemoveConnection(). A name that is already registered keeps its first pair. Returns the
  /// connection's name. Throws ZrException "socket and connection must be defined" when either is
  /// missing. The caller holds neither lock.
  std::string AddConnection(std::shared_ptr<ZrSocketIPvx> socket,
                            std::shared_ptr<ZrTransceiverConnection> connection);
  /// Drops a connection at once, with what it still had to send, and tells its server, the server's
  /// owner and the connection itself by an event with code 2. Unknown names are ignored. The flag
  /// says that the peer or the socket was the cause; it changes nothing.
  void RemoveConnection(const std::string& name, bool flag);
  /// Ends a connection in order: nothing more is read from it, what is queued is sent, then the
  /// sending side is shut down and the connection goes when the peer has ended its side, too, or a
  /// moment later. An expired connection goes at once.
  void FinishConnection(ZrTransceiverConnection& connection);

  /// Writes what is queued on the connection now, on this thread; what the socket refuses is left
  /// to the send job.
  void FlushConnection(ZrTransceiverConnection& connection);
  /// Has the send job look for queued output on all connections. FlushConnection() is the cheap
  /// way.
  void WakeSender();
  /// An item ended, bytes were written or a connection went: whoever waits for answers looks again.
  void NoteProgress();
  /// A connection that reading had paused on may be read again.
  void ResumeReading(ZrTransceiverConnection& connection);

  /// Takes the server out of the joined task it is attached to and tells its owner by an event with
  /// code 5 that its exchange is finished.
  void ReleaseServerTask(const std::string& serverName);
  /// Ends both I/O jobs and forgets all sockets.
  void StopIO();
  /// Writes the "logging" entry of a record of kind 7 to standard output, one write a line.
  void PrintLogRecord(const ZrServerCallback_t& record);

  /// Stop, step by step: no further peer is accepted ...
  void StopAccepting();
  /// ... the requests in progress are answered and their answers sent, if that happens in time ...
  bool WaitForAnswers(std::chrono::nanoseconds limit);
  /// (which another thread can give up: it returns at once, now and later)
  void AbandonAnswers();
  /// ... and no server runs any more. Waits for messages being handled; the caller holds no lock.
  void StopServers();

  /// Hands a server that lost its last owner to the housekeeper, who waits for its tasks to end.
  /// Answers no when the housekeeper does not run any more: the caller ends it then.
  bool EndLater(std::function<void()> end);
  /// Has the housekeeper look at all time limits now (after a clock was set by hand).
  void WakeHousekeeper();
  const ZrClock& Clock() const { return clock_; }
  const ZrServerFactories& Factories() const { return factories_; }
  /// What all peers of this transceiver together may occupy; everything kept for one counts there.
  const std::shared_ptr<ZrMemoryBudget>& Memory() const { return memory_; }

 private:
  using ConnectionPointer = std::shared_ptr<ZrTransceiverConnection>;

  struct ClientRecord {
    std::shared_ptr<ZrMessageHandler> client;
    std::set<std::string> servers;  // names of the option heads opened for it
  };
  struct Registered {
    std::shared_ptr<ZrSocketIPvx> socket;
    ConnectionPointer connection;
    std::uint64_t token = 0;
    bool paused = false;  // not watched for input
  };
  struct Ready {
    std::shared_ptr<ZrSocketIPvx> socket;
    ConnectionPointer connection;
    std::uint64_t token = 0;
    bool urgent = false;
    bool hangup = false;
  };

  std::string SendAnswer(const std::string& clientName, const std::shared_ptr<ZrXHeader>& message,
                         const std::string& target);
  std::string SendRequest(const std::string& clientName, std::shared_ptr<ZrXHeader> message,
                          const ZrServerCallback& callback);
  std::shared_ptr<ZrOutgoingLink> OutgoingFor(const std::string& clientName,
                                              const std::string& poolKey, std::uint32_t kind,
                                              const ZrServerCallback& callback);
  using Pools = std::map<std::string, std::shared_ptr<ZrOutgoingLink>>;  // by target
  void TakeUnused(Pools& pools, std::vector<std::shared_ptr<ZrOutgoingLink>>& unused)
      ZR_REQUIRES(clientLock_);
  std::vector<std::shared_ptr<ZrServerLink>> Servers();
  std::vector<ConnectionPointer> Connections();

  void StartIO() ZR_REQUIRES(ioLock_);
  void EndIO();
  std::uint64_t SubmitLoop(const std::string& name, void (ZrTransceiver::*loop)(),
                           std::atomic<bool>& running, ZrPoller& poller);
  void ReceiveLoop();
  void SendLoop();
  void FlushAll();
  /// Writes what is queued. Since a poller said that the socket is ready (`ready`, else none), a
  /// pass that does nothing and would be repeated at once ends the connection.
  void Flush(ZrTransceiverConnection& connection, const Ready* ready);
  void AfterOutput(ZrTransceiverConnection& connection);
  /// The registered pairs behind ready descriptors.
  void Resolve(std::span<const ZrReadiness> events, std::vector<Ready>& ready);
  void Receive(Ready& ready, std::vector<Ready>& again);
  void ReadAgain(std::uint64_t token) ZR_REQUIRES(ioLock_);
  void ResolveResumed(std::vector<Ready>& ready);
  /// No: the bytes were taken meanwhile, reading goes on.
  bool PauseReading(ZrTransceiverConnection& connection);
  void OnPeerFinished(ZrTransceiverConnection& connection);
  bool EndOutputWhenDone(ZrTransceiverConnection& connection) ZR_REQUIRES(connection.Lock());
  void WatchOutput(ZrTransceiverConnection& connection, bool wanted) ZR_REQUIRES(connection.Lock());
  void Unbind(ZrTransceiverConnection& connection);

  void HousekeepingLoop() ZR_EXCLUDES(houseLock_);
  void EndHousekeeping() ZR_EXCLUDES(houseLock_);
  std::int64_t HouseDue() const ZR_REQUIRES(houseLock_);
  void CheckServers();
  void CheckConnection(const ConnectionPointer& connection);
  void WatchServers(std::int64_t due) ZR_EXCLUDES(houseLock_);
  void WatchConnection(const ConnectionPointer& connection) ZR_EXCLUDES(houseLock_);
  /// Its next expiry is nearer than it was.
  void HastenConnection(ZrTransceiverConnection& connection) ZR_EXCLUDES(houseLock_);
  void ForgetConnection(ZrTransceiverConnection& connection) ZR_EXCLUDES(houseLock_);

  // Constant after construction.
  ZrRinvalScheduler2& scheduler_;
  const ZrServerFactories factories_;
  const ZrClock& clock_;
  std::string housekeepingTask_;
  const std::shared_ptr<ZrMemoryBudget> memory_ =
      std::make_shared<ZrMemoryBudget>(ZrMemoryBudget::DefaultLimit());

  ZrMutex clientLock_;
  std::map<std::string, ClientRecord> clients_ ZR_GUARDED_BY(clientLock_);
  std::unordered_map<std::string, ConnectionPointer> connections_ ZR_GUARDED_BY(clientLock_);
  std::unordered_map<std::string, std::shared_ptr<ZrServerLink>> servers_
      ZR_GUARDED_BY(clientLock_);
  // By handler name and target; and by the pool's own name.
  std::map<std::string, Pools> hookServices_ ZR_GUARDED_BY(clientLock_);
  std::map<std::string, std::shared_ptr<ZrOutgoingLink>> hookServicesByName_
      ZR_GUARDED_BY(clientLock_);

  ZrMutex ioLock_ ZR_ACQUIRED_AFTER(clientLock_);
  std::unordered_map<std::string, Registered> sockets_ ZR_GUARDED_BY(ioLock_);
  std::unordered_map<std::uint64_t, Registered*> byToken_ ZR_GUARDED_BY(ioLock_);  // into sockets_
  std::uint64_t lastToken_ ZR_GUARDED_BY(ioLock_) = 0;
  std::vector<std::uint64_t> resumed_ ZR_GUARDED_BY(ioLock_);  // have input of their own to read
  std::uint64_t receiveJob_ ZR_GUARDED_BY(ioLock_) = 0;  // task IDs; 0 before the first connection
  std::uint64_t sendJob_ ZR_GUARDED_BY(ioLock_) = 0;
  std::atomic<bool> receiving_{false};
  std::atomic<bool> sending_{false};
  std::atomic<bool> flushAll_{false};  // WakeSender() was called
  ZrPoller receivePoller_;
  ZrPoller sendPoller_;

  std::atomic<bool> draining_{false};  // WaitForAnswers() was called; traffic pays for it only then
  ZrMutex drainLock_;
  ZrCondition progress_;
  bool progressed_ ZR_GUARDED_BY(drainLock_) = false;
  bool abandoned_ ZR_GUARDED_BY(drainLock_) = false;

  // The housekeeper. Each connection stands in watched_ once, at a time at which it cannot have
  // expired earlier; it is looked at then and put at its next time, so that traffic costs nothing
  // here.
  using WatchPlace = std::pair<std::int64_t, const ZrTransceiverConnection*>;  // time first
  ZrMutex houseLock_;
  ZrCondition houseWake_;  // one of the following changed
  bool alive_ ZR_GUARDED_BY(houseLock_) = true;
  bool lookNow_ ZR_GUARDED_BY(houseLock_) = false;
  std::vector<std::function<void()>> endings_ ZR_GUARDED_BY(houseLock_);
  std::map<WatchPlace, std::weak_ptr<ZrTransceiverConnection>> watched_ ZR_GUARDED_BY(houseLock_);
  std::int64_t serversDue_ ZR_GUARDED_BY(houseLock_) = std::numeric_limits<std::int64_t>::max();
  ZrThread housekeeper_;  // started by the constructor, joined by the destructor
};
