#include "servers/server.h"

#include <functional>

#include "base/batch.h"
#include "base/line_writer.h"
#include "base/workbench.h"
#include "http/message_head.h"
#include "jobs/scheduler.h"
#include "transceiver/connection.h"
#include "transceiver/transceiver.h"

ZrTransceiverServer::ZrTransceiverServer(ZrServerSetup setup)
    : ZrJobWithTimeout(kTimeLimit, setup.transceiver.Clock()),
      scheduler_(setup.scheduler),
      clientName_(std::move(setup.clientName)),
      ownerName_(std::move(setup.ownerName)),
      callback_(std::move(setup.callback)),
      transceiver_(&setup.transceiver),
      headName_(std::move(setup.headName)) {
  CreateJoinedTaskFor("server_" + clientName_);
}

ZrTransceiverServer::~ZrTransceiverServer() {
  if (!callback_) return;
  try {
    ZrServerCallback_t record;
    record.kind = ZrServerCallback_t::kServerGone;
    record.info.Set("ID", JobName());
    record.info.Set("roll", persistent_ ? "server" : "client");
    callback_(record);
  } catch (...) {
    // The owner's own failure; the server goes all the same.
  }
}

void ZrTransceiverServer::TellOwner(ZrServerCallback_t& record) const {
  if (!callback_) throw std::bad_function_call();
  try {
    callback_(record);
  } catch (...) {
    // Its own failure: peers are served all the same.
  }
}

bool ZrTransceiverServer::ReceiveEvent(const ZrJobEvent&) { return true; }

bool ZrTransceiverServer::HasExpired() { return !persistent_ && ZrJobWithTimeout::HasExpired(); }

void ZrTransceiverServer::processItem(const std::string&, const std::string&) {}

bool ZrTransceiverServer::SendHead(const std::shared_ptr<ZrTransceiverConnection>&,
                                   const std::shared_ptr<ZrXHeader>& head) {
  LeaveTask(*head);
  return false;
}

void ZrTransceiverServer::LeaveTask(ZrXHeader& answer) {
  if (!answer.presence.Leave()) LeaveJoinedTask(answer.target);
}

bool ZrTransceiverServer::SendHead(const std::string& connectionName,
                                   const std::shared_ptr<ZrXHeader>& head) {
  ZrTransceiver* const transceiver = Transceiver();
  return SendHead(transceiver != nullptr ? transceiver->FindConnection(connectionName) : nullptr,
                  head);
}

void ZrTransceiverServer::stop() { zr::WriteOutputLine("ZrTransceiverServer::stop()"); }

bool ZrTransceiverServer::attachTransceiver(ZrTransceiver& transceiver) {
  ZrTransceiver* none = nullptr;
  return transceiver_.compare_exchange_strong(none, &transceiver);
}

void ZrTransceiverServer::detachTransceiver(ZrTransceiver& transceiver) {
  ZrTransceiver* expected = &transceiver;
  transceiver_.compare_exchange_strong(expected, nullptr);
}

void ZrTransceiverServer::wake(const std::string&) {
  ZrLock hold(queueLock_);
  queueWake_.NotifyAll();
}

ZrSharedText ZrTransceiverServer::SharedHeadName() const {
  ZrLock hold(nameLock_);
  return headName_;
}

void ZrTransceiverServer::SetHeadName(const std::string& name) {
  ZrLock hold(nameLock_);
  headName_ = name;
}

std::string ZrTransceiverServer::Result() const {
  ZrLock hold(nameLock_);
  return result_;
}

void ZrTransceiverServer::SetResult(const std::string& name) {
  ZrLock hold(nameLock_);
  result_ = name;
}

// ---- The work queue ----------------------------------------------------------------------------

void ZrTransceiverServer::enqueue(std::string key, std::string data) {
  ZrLock hold(queueLock_);
  if (ended_) return;
  if (!dropped_.empty()) dropped_.erase(key);
  queue_.emplace_back(std::move(key), std::move(data));
  if (queueTask_ == 0) StartQueueTask();
  queueWake_.NotifyOne();
}

bool ZrTransceiverServer::StartQueue() {
  ZrLock hold(queueLock_);
  if (queueTask_ == 0 && !ended_) StartQueueTask();
  return queueTask_ != 0;
}

void ZrTransceiverServer::StartQueueTask() {
  processing_ = true;
  ZrRinvalTaskDescription description;
  description.name = "ZrTransceiverServer_bufferprocess" + JobName();
  description.stopAction = [this] {
    ZrLock hold(queueLock_);
    processing_ = false;
    queueWake_.NotifyAll();
  };
  queueTask_ = scheduler_.Submit(
      [this](ZrRinvalJobParametersAndResult* record) {
        QueueLoop();
        return record;
      },
      nullptr, description);
  // It cannot have ended by itself with the lock held here: there was no thread for it, and the
  // next pair tries again.
  if (!scheduler_.IsDone(queueTask_)) return;
  scheduler_.FetchResult(queueTask_);
  queueTask_ = 0;
}

// What a slow handler keeps waiting is bounded by the connections there are: those that go before
// their turn comes take their pairs along, half a queue of them at once.
void ZrTransceiverServer::dropItems(const std::string& key) {
  ZrLock hold(queueLock_);
  if (queue_.empty()) return;
  dropped_.insert(key);
  if (2 * dropped_.size() < queue_.size()) return;
  std::erase_if(queue_, [this](const Item& item)
                            ZR_REQUIRES(queueLock_) { return dropped_.contains(item.first); });
  dropped_.clear();
}

std::size_t ZrTransceiverServer::waitingItems() const {
  ZrLock hold(queueLock_);
  return queue_.size();
}

// Takes all that waits at once: items that come while a batch is handled cost no wake-up.
void ZrTransceiverServer::QueueLoop() {
  std::vector<Item> batch;
  const ZrWorkbench workbench;
  while (Processing()) {
    {
      ZrLock hold(queueLock_);
      queueWake_.Wait(queueLock_, [this]() ZR_REQUIRES(queueLock_) {
        return !Processing() || !queue_.empty();
      });
      batch.swap(queue_);
      dropped_.clear();
    }
    const ZrBatch together;
    for (const auto& [key, data] : batch) {
      if (!Processing()) break;
      Touch();
      try {
        processItem(key, data);
      } catch (...) {
        GiveUp(key);
      }
    }
    batch.clear();
  }
}

// One item's failure, of memory in effect; the others are handled. Nobody would come for what its
// connection has received, so its peer, or who asked it, is told by its end.
void ZrTransceiverServer::GiveUp(const std::string& connectionName) noexcept {
  try {
    if (ZrTransceiver* const transceiver = Transceiver())
      transceiver->RemoveConnection(connectionName);
  } catch (...) {
    // What it was about ends by its time limit.
  }
}

void ZrTransceiverServer::HandleArrived(
    ZrReceivePass&, std::span<const std::shared_ptr<ZrTransceiverConnection>> connections) {
  for (const auto& connection : connections) enqueue(connection->JobName(), clientName_);
}

bool ZrTransceiverServer::BeginWork() {
  ZrLock hold(queueLock_);
  if (ended_) return false;
  ++working_;
  return true;
}

void ZrTransceiverServer::EndWork() {
  ZrLock hold(queueLock_);
  if (--working_ == 0 && ended_) queueWake_.NotifyAll();
}

void ZrTransceiverServer::EndTasks() {
  std::uint64_t task = 0;
  {
    ZrLock hold(queueLock_);
    ended_ = true;
    processing_ = false;
    task = std::exchange(queueTask_, 0);
    queueWake_.NotifyAll();
    queueWake_.Wait(queueLock_, [this]() ZR_REQUIRES(queueLock_) { return working_ == 0; });
  }
  if (task == 0) return;
  scheduler_.WaitDone(task);
  scheduler_.FetchResult(task);
}

void zr::EndServer(ZrTransceiverServer* server) noexcept {
  const auto end = [server] {
    server->EndTasks();
    zr::EndJob(server);
  };
  ZrTransceiver* transceiver = server->Transceiver();
  if (transceiver == nullptr || !transceiver->EndLater(end)) end();
}
