#pragma once
// The pool that carries one handler's requests to one target. Each request is given to an idle
// worker, or to a new one while there are fewer than ten, or it waits in order. A worker is a
// connecting server with one connection; it takes one request at a time and says by an event when
// that is over.
//
// Nothing that takes time happens under the pool's lock, on the thread that delivers events or on
// that of a sender. A worker is started on a task of its own: a place in the pool is reserved, the
// worker is started with no lock held, then entered.
// Waiting requests are handed out by a short task (the pump) that runs when a worker became idle or
// dropped out. A worker whose connection has closed gets no further request; what it had been given
// is sent once more over a fresh connection when no byte of an answer had come, because then the
// connection, as likely as not, had been closed before the request reached the peer.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "base/send_failure.h"
#include "servers/base_server.h"
#include "servers/server.h"
#include "transceiver/server_factories.h"
#include "transceiver/server_link.h"

/// Threads: any. Made with zr::MakeServer().
class ZrURLHookService : public ZrTransceiverServer, public ZrOutgoingLink {
 public:
  static constexpr std::size_t kWorkerLimit = 10;

  /// The factory makes the workers.
  ZrURLHookService(ZrServerSetup setup, ZrConnectingFactory workers);

  /// Events about workers: code 5, the exchange is over; 1, its time limit has passed; 2, its
  /// connection is closed; 9, its request got no answer. Answers yes.
  bool ReceiveEvent(const ZrJobEvent& event) override ZR_REQUIRES(lock_);

  /// Hands the request to an idle worker or to a new one, which is started on a task: the head is
  /// returned. With a full pool it waits, in front of or behind those that wait already, and
  /// nothing is returned; likewise without a head or a transceiver. A pool that has ended, or has
  /// no thread, sets `startFailed`; the request is then reported as failed, like one whose worker
  /// cannot be started later, and the head returned. Throws std::bad_function_call without a
  /// factory. The caller holds no lock.
  std::shared_ptr<ZrXHeader> submit(std::shared_ptr<ZrXHeader> head, bool& startFailed,
                                    bool inFront) override;
  /// Requests that wait for a worker.
  virtual std::uint64_t waitingCount();
  /// Waiting requests minus idle workers plus workers, those that are being started included.
  virtual std::uint64_t load();

  std::string connectionOwnerName() const { return OwnerName(); }
  ZrJobWithTimeout& OutgoingJob() override { return *this; }
  bool IsUnused() const override { return unused_; }
  void Withdraw(const std::shared_ptr<ZrXHeader>& head) override ZR_EXCLUDES(lock_);
  void EndStarts() override;
  /// Waits for the tasks, also those of the workers, and closes their connections. The sender is
  /// told of the requests that wait or are not answered. Not called by a handler that a worker has
  /// called.
  void EndTasks() override;

 private:
  using WorkerPointer = std::shared_ptr<ZrTransceiverServerL0>;
  struct Request {
    std::shared_ptr<ZrXHeader> head;
    bool resent = false;  // it was handed to a worker before; it needs a fresh connection
  };
  struct Worker {
    WorkerPointer server;
    Request request;      // what it was handed; empty while it is idle
    bool closed = false;  // its connection is gone
  };
  struct Failed {
    std::shared_ptr<ZrXHeader> head;
    ZrSendFailure failure;
  };
  using Workers = std::map<std::string, Worker>;

  WorkerPointer takeIdleWorker(const Request& request) ZR_REQUIRES(lock_);
  void deliverToWorker(const WorkerPointer& worker, const Request& request) ZR_EXCLUDES(lock_);
  void TakeBack(const WorkerPointer& worker, const Request& request, ZrSendFailure failure)
      ZR_EXCLUDES(lock_);
  bool IsUsable(const Worker& worker) ZR_REQUIRES(lock_);
  bool HasPlace() const ZR_REQUIRES(lock_) { return workers_.size() + starting_ < kWorkerLimit; }
  void Remove(Workers::iterator worker) ZR_REQUIRES(lock_);

  void OnWorkerDone(const ZrJobEvent& event) ZR_REQUIRES(lock_);
  void OnWorkerExpired(const ZrJobEvent& event) ZR_REQUIRES(lock_);
  void OnConnectionClosed(const ZrJobEvent& event) ZR_REQUIRES(lock_);
  void OnUnanswered(const ZrJobEvent& event) ZR_REQUIRES(lock_);
  void Resolve(Request request, ZrSendFailure failure) ZR_REQUIRES(lock_);

  bool StartLater(const Request& request) ZR_REQUIRES(lock_);
  void StartWorker(const Request& request) ZR_EXCLUDES(lock_);
  WorkerPointer MakeWorker(const Request& request, ZrSendFailure& failure) ZR_EXCLUDES(lock_);
  bool EnterStarting(const WorkerPointer& worker) ZR_EXCLUDES(lock_);
  bool Enter(const WorkerPointer& worker, const Request& request, ZrSendFailure& failure)
      ZR_REQUIRES(lock_);
  void DropWorker(const WorkerPointer& worker) ZR_EXCLUDES(lock_);
  void DropLater(std::vector<WorkerPointer> workers) ZR_EXCLUDES(lock_);
  void TellSender(const Failed& failed) noexcept ZR_EXCLUDES(lock_);
  void Report(const Failed& failed) ZR_EXCLUDES(lock_);
  void ReportAll(const std::vector<Failed>& failed) noexcept ZR_EXCLUDES(lock_);

  void WakePump() ZR_REQUIRES(lock_);
  void Pump() ZR_EXCLUDES(lock_);
  bool PumpOne() ZR_EXCLUDES(lock_);
  bool RunLater(const char* name, std::function<void()> run) ZR_REQUIRES(lock_);

  const ZrConnectingFactory factory_;
  std::atomic<bool> unused_{true};  // changes under the job's lock

  // Guarded by the job's lock.
  Workers workers_ ZR_GUARDED_BY(lock_);  // by job name
  std::set<std::string> idle_ ZR_GUARDED_BY(lock_);
  std::deque<Request> waiting_ ZR_GUARDED_BY(lock_);
  std::size_t starting_ ZR_GUARDED_BY(lock_) = 0;  // places reserved for workers being started
  std::size_t dropping_ ZR_GUARDED_BY(lock_) = 0;  // tasks that drop workers
  std::set<WorkerPointer> startingWorkers_ ZR_GUARDED_BY(lock_);
  std::set<std::shared_ptr<ZrXHeader>> withdrawn_ ZR_GUARDED_BY(lock_);  // while any is starting
  std::vector<WorkerPointer> gone_ ZR_GUARDED_BY(lock_);   // left the pool, to be dropped
  std::vector<Failed> failed_ ZR_GUARDED_BY(lock_);        // to be reported
  bool pumping_ ZR_GUARDED_BY(lock_) = false;              // the pump runs or is to run
  bool pumpAgain_ ZR_GUARDED_BY(lock_) = false;            // there is more for it to do
  bool ended_ ZR_GUARDED_BY(lock_) = false;                // EndStarts() ran
  std::vector<std::uint64_t> tasks_ ZR_GUARDED_BY(lock_);  // IDs not yet fetched
};

namespace zr {

/// The factory of pools, for ProtocolServers().
ZrOutgoingFactory OutgoingPools();

}  // namespace zr
