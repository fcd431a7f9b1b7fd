#pragma once
// The base of every server: a job that belongs to a transceiver, reports to its owner through the
// server callback, and owns a work queue. Whoever has something for the server to do puts a (key,
// data) pair into the queue; one scheduled task of the server takes them out in order and calls
// processItem() for each. The task sleeps while the queue is empty.

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_set>
#include <utility>
#include <vector>

#include "base/server_callback.h"
#include "base/shared_text.h"
#include "jobs/job_with_timeout.h"
#include "platform/sync.h"
#include "transceiver/server_factories.h"
#include "transceiver/server_link.h"

class ZrRinvalScheduler2;
class ZrTransceiver;
class ZrTransceiverServer;

namespace zr {

/// Ends a server that nobody holds any more: first its tasks, then the job. The transceiver's
/// housekeeper does it, as the thread that drops the last reference may be one of those tasks or a
/// delivery of events; once the housekeeper has ended, the calling thread does.
void EndServer(ZrTransceiverServer* server) noexcept;

}  // namespace zr

/// Made with zr::MakeServer(), which has all tasks of a server ended before its destructor starts.
/// Threads: any, where nothing else is said.
class ZrTransceiverServer : public ZrJobWithTimeout,
                            public ZrServerLink,
                            public std::enable_shared_from_this<ZrTransceiverServer> {
 public:
  /// Without traffic for that long (microseconds) a server that is not persistent ends.
  static constexpr std::uint64_t kTimeLimit = 120'000'000;

  explicit ZrTransceiverServer(ZrServerSetup setup);
  /// Reports kind 2. All tasks have ended before.
  ~ZrTransceiverServer() override;

  /// Answers yes to every event. (One of code 3 asks for the result text in its values; as events
  /// are handed on by copy, nobody would see it there.)
  bool ReceiveEvent(const ZrJobEvent& event) override ZR_REQUIRES(lock_);
  /// A persistent server never does.
  bool HasExpired() override;

  /// Handles one pair of the queue, on the queue task and with no lock held. The base drops it.
  virtual void processItem(const std::string& key, const std::string& data);
  /// The base leaves the head's joined task and answers no.
  bool SendHead(const std::shared_ptr<ZrTransceiverConnection>& connection,
                const std::shared_ptr<ZrXHeader>& head) override;
  /// Looks the connection up and sends on it.
  bool SendHead(const std::string& connectionName, const std::shared_ptr<ZrXHeader>& head) final;
  /// The base says so on standard output.
  void stop() override;
  /// Sets the transceiver when there is none and answers whether it did.
  virtual bool attachTransceiver(ZrTransceiver& transceiver);
  /// Clears the transceiver when it is this one.
  virtual void detachTransceiver(ZrTransceiver& transceiver);
  /// Something arrived on a connection. The base wakes the queue task and does not use the name.
  virtual void wake(const std::string& connectionName);

  /// The base starts nothing and answers no.
  bool start() override { return false; }
  void EndTasks() override;
  /// The base leaves them to the queue task.
  void HandleArrived(
      ZrReceivePass& pass,
      std::span<const std::shared_ptr<ZrTransceiverConnection>> connections) override;
  ZrJobWithTimeout& ServerJob() override { return *this; }
  std::string OwnerName() const override { return ownerName_; }
  bool CanExpire() const override { return !persistent_; }

  /// Puts a pair at the end of the queue; the first one starts the queue task. Ignored once the
  /// server's tasks have been ended.
  void enqueue(std::string key, std::string data) ZR_EXCLUDES(queueLock_);
  /// The pairs of this key that wait now are of no use any more; they may or may not be handled.
  void dropItems(const std::string& key) ZR_EXCLUDES(queueLock_);
  /// Pairs that wait behind those the queue task has taken.
  std::size_t waitingItems() const ZR_EXCLUDES(queueLock_);

  bool Persistent() const { return persistent_; }
  std::uint32_t ProtocolKind() const { return protocolKind_; }
  const std::string& ClientName() const { return clientName_; }
  std::string HeadName() const { return SharedHeadName(); }
  ZrSharedText SharedHeadName() const;
  void SetHeadName(const std::string& name);
  /// The name of the connection that a connecting server made last; empty before.
  std::string Result() const;

 protected:
  /// The transceiver, nothing when detached.
  ZrTransceiver* Transceiver() const { return transceiver_.load(std::memory_order_acquire); }
  ZrRinvalScheduler2& Scheduler() const { return scheduler_; }
  const ZrServerCallback& Callback() const { return callback_; }
  /// Reports to the owner. What its callback throws is its own affair and ends here; an empty one
  /// raises std::bad_function_call.
  void TellOwner(ZrServerCallback_t& record) const;
  void SetResult(const std::string& name);
  /// Starts the queue task, for servers that are not to find out with their first pair that there
  /// is no thread for it. No: there is none.
  [[nodiscard]] bool StartQueue() ZR_EXCLUDES(queueLock_);
  /// Brackets work that another thread than the queue task does: EndTasks() waits for its end. No:
  /// the server's tasks have been ended.
  [[nodiscard]] bool BeginWork() ZR_EXCLUDES(queueLock_);
  void EndWork() ZR_EXCLUDES(queueLock_);
  /// The server leaves the joined task of an answer.
  void LeaveTask(ZrXHeader& answer);
  /// Whether the queue task shall go on; a long processItem() may ask.
  bool Processing() const { return processing_.load(std::memory_order_acquire); }
  friend void zr::EndServer(ZrTransceiverServer* server) noexcept;

  // Set by the constructors of the derived classes only.
  bool persistent_ = true;
  std::uint32_t protocolKind_ = 0;

 private:
  void StartQueueTask() ZR_REQUIRES(queueLock_);
  void QueueLoop() ZR_EXCLUDES(queueLock_);
  void GiveUp(const std::string& connectionName) noexcept;

  ZrRinvalScheduler2& scheduler_;
  const std::string clientName_;
  const std::string ownerName_;
  const ZrServerCallback callback_;
  std::atomic<ZrTransceiver*> transceiver_;

  // Not the job's lock: whoever holds that keeps events of arrived bytes from their delivery.
  mutable ZrMutex nameLock_;
  ZrSharedText headName_ ZR_GUARDED_BY(nameLock_);
  std::string result_ ZR_GUARDED_BY(nameLock_);

  mutable ZrMutex queueLock_;
  ZrCondition queueWake_;  // the queue grew or processing ended
  using Item = std::pair<std::string, std::string>;
  std::vector<Item> queue_ ZR_GUARDED_BY(queueLock_);
  std::unordered_set<std::string> dropped_ ZR_GUARDED_BY(queueLock_);  // keys of no use in it
  std::uint64_t queueTask_ ZR_GUARDED_BY(queueLock_) = 0;              // task ID; 0: not started
  std::size_t working_ ZR_GUARDED_BY(queueLock_) = 0;  // between BeginWork() and EndWork()
  bool ended_ ZR_GUARDED_BY(queueLock_) = false;       // EndTasks() ran
  std::atomic<bool> processing_{false};                // changes under queueLock_
};

namespace zr {

/// Makes a server in shared ownership; see EndServer().
template <class Server, class... Args>
std::shared_ptr<Server> MakeServer(Args&&... args) {
  return std::shared_ptr<Server>(new Server(std::forward<Args>(args)...), &EndServer);
}

}  // namespace zr
