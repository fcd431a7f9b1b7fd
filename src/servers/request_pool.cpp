#include "servers/request_pool.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "base/exception.h"
#include "http/message_head.h"
#include "jobs/job_registry.h"
#include "jobs/scheduler.h"
#include "transceiver/connection.h"
#include "transceiver/transceiver.h"

namespace {

constexpr const char* kNoThread = "there is no thread left";

}  // namespace

ZrURLHookService::ZrURLHookService(ZrServerSetup setup, ZrConnectingFactory workers)
    : ZrTransceiverServer(std::move(setup)), factory_(std::move(workers)) {
  CreateJoinedTaskFor("urlhook_" + JobName());
  SetHeadName(JobName());
}

std::uint64_t ZrURLHookService::waitingCount() {
  ZrLock hold(lock_);
  return waiting_.size();
}

std::uint64_t ZrURLHookService::load() {
  ZrLock hold(lock_);
  return waiting_.size() + workers_.size() + starting_ - idle_.size();
}

// ---- Requests ----------------------------------------------------------------------------------

std::shared_ptr<ZrXHeader> ZrURLHookService::submit(std::shared_ptr<ZrXHeader> head,
                                                    bool& startFailed, bool inFront) {
  if (!head || Transceiver() == nullptr) return nullptr;
  if (!factory_) throw std::bad_function_call();
  const Request request{std::move(head)};
  WorkerPointer worker;
  ZrSendFailure failure{ZrSendFailureKind::kNotSent, kNoThread};
  {
    ZrLock hold(lock_);
    startFailed = ended_;
    unused_ = false;
    // A request does not overtake those that wait.
    if (!ended_ && (waiting_.empty() || inFront)) worker = takeIdleWorker(request);
    if (!ended_ && !worker && (!HasPlace() || (!waiting_.empty() && !inFront))) {
      waiting_.insert(inFront ? waiting_.begin() : waiting_.end(), request);
      WakePump();
      return nullptr;
    }
    if (ended_)
      failure = {ZrSendFailureKind::kStopped};
    else if (!worker)
      startFailed = !StartLater(request);
  }
  if (startFailed)
    Report({request.head, failure});
  else if (worker)
    deliverToWorker(worker, request);
  return request.head;
}

// The one with the smallest name that still is of use, and the request is entered as its own.
ZrURLHookService::WorkerPointer ZrURLHookService::takeIdleWorker(const Request& request) {
  while (!idle_.empty()) {
    const auto found = workers_.find(*idle_.begin());
    idle_.erase(idle_.begin());
    if (found == workers_.end()) continue;
    if (!IsUsable(found->second)) {
      Remove(found);
      continue;
    }
    found->second.request = request;
    return found->second.server;
  }
  return nullptr;
}

// A worker without a connection of the transceiver's is its own affair.
bool ZrURLHookService::IsUsable(const Worker& worker) {
  if (worker.closed || worker.server->HasExpired()) return false;
  if (worker.server->Result().empty()) return true;
  const auto connection = worker.server->OwnConnection();
  return connection && !connection->IsClosing() && !connection->PeerFinished() &&
         !connection->HasReceived();
}

void ZrURLHookService::deliverToWorker(const WorkerPointer& worker, const Request& request) {
  worker->Attach(request.head->target);
  if (worker->Persistent()) return;
  if (request.head->kind == ZrMessageKind::kRequest) worker->SetHeadName(request.head->JobName());
  if (worker->SendHead(worker->OwnConnection(), request.head)) return;
  // Its time has ended before the request could be sent.
  TakeBack(worker, request, {ZrSendFailureKind::kClosed, {}, true});
}

// The worker goes. Of no effect when the request is no more its own.
void ZrURLHookService::TakeBack(const WorkerPointer& worker, const Request& request,
                                ZrSendFailure failure) {
  ZrLock hold(lock_);
  const auto found = workers_.find(worker->JobName());
  if (found == workers_.end() || found->second.request.head != request.head) return;
  Remove(found);
  Resolve(request, std::move(failure));
}

// A connection that is being made for it is dropped when that has come to its end.
void ZrURLHookService::Withdraw(const std::shared_ptr<ZrXHeader>& head) {
  Request withdrawn;  // released without the lock
  WorkerPointer worker;
  {
    ZrLock hold(lock_);
    const auto waits = std::find_if(
        waiting_.begin(), waiting_.end(),
        [&](const Request& request) { return request.head == head; });
    const auto out = std::find_if(workers_.begin(), workers_.end(), [&](const auto& entry) {
      return entry.second.request.head == head;
    });
    if (waits != waiting_.end()) {
      withdrawn = std::move(*waits);
      waiting_.erase(waits);
      WakePump();
    } else if (out != workers_.end()) {
      worker = out->second.server;
      Remove(out);
    } else if (starting_ > 0) {
      withdrawn_.insert(head);
    }
  }
  ZrTransceiver* const transceiver = Transceiver();
  const auto connection = worker ? worker->OwnConnection() : nullptr;
  if (connection && transceiver != nullptr) transceiver->RemoveConnection(*connection);
}

// ---- Workers -----------------------------------------------------------------------------------

// Looking up and connecting take time that is no sender's. No: there is no thread for it.
bool ZrURLHookService::StartLater(const Request& request) {
  ++starting_;
  try {
    if (RunLater("ZrURLHookService_start", [this, request] { StartWorker(request); })) return true;
  } catch (const std::exception&) {
    // Without memory there is no task either.
  }
  --starting_;
  return false;
}

// For a request for which a place was reserved, which is given back in every case. Where none could
// be started the request is reported.
void ZrURLHookService::StartWorker(const Request& request) {
  ZrSendFailure failure{ZrSendFailureKind::kStopped};
  WorkerPointer worker;
  bool started = false;
  bool late = false;  // the pool ended meanwhile
  try {
    worker = MakeWorker(request, failure);
    if (worker && EnterStarting(worker)) {
      started = worker->start();
      if (!started) failure = worker->StartFailure();
      // Before the pool knows it: its first events are answered by looking it up there.
      if (started) Transceiver()->AddServer(worker);
    }
  } catch (...) {
    started = false;
    failure = {ZrSendFailureKind::kNotSent, "the connection could not be made"};
  }
  {
    ZrLock hold(lock_);
    --starting_;
    startingWorkers_.erase(worker);
    const bool withdrawn = withdrawn_.erase(request.head) > 0;
    if (starting_ == 0) withdrawn_.clear();
    late = started && (ended_ || withdrawn || !Enter(worker, request, failure));
    if (!started || late) WakePump();
  }
  if (late) DropWorker(worker);
  if (!started || late) return Report({request.head, failure});
  try {
    deliverToWorker(worker, request);
  } catch (...) {
    TakeBack(worker, request, {ZrSendFailureKind::kNotSent, "the request could not be sent"});
  }
}

bool ZrURLHookService::Enter(const WorkerPointer& worker, const Request& request,
                             ZrSendFailure& failure) {
  try {
    workers_[worker->JobName()] = {worker, request};
    return true;
  } catch (const std::bad_alloc& problem) {
    failure = {ZrSendFailureKind::kNotSent, problem.what()};
    return false;
  }
}

// Made outside the lock as well: a worker with TLS loads certificates.
ZrURLHookService::WorkerPointer ZrURLHookService::MakeWorker(const Request& request,
                                                             ZrSendFailure& failure) {
  try {
    return factory_({.scheduler = Scheduler(),
                     .transceiver = *Transceiver(),
                     .clientName = ClientName(),
                     .headName = request.head->JobName(),
                     .ownerName = JobName(),
                     .callback = Callback()},
                    request.head);
  } catch (const ZrException_SSL& problem) {
    failure = {ZrSendFailureKind::kTls, problem.what()};
  } catch (const std::exception& problem) {
    failure = {ZrSendFailureKind::kNotSent, problem.what()};
  }
  return nullptr;
}

bool ZrURLHookService::EnterStarting(const WorkerPointer& worker) {
  ZrLock hold(lock_);
  if (ended_) return false;
  startingWorkers_.insert(worker);
  return true;
}

void ZrURLHookService::Remove(Workers::iterator worker) {
  gone_.push_back(std::move(worker->second.server));
  idle_.erase(worker->first);
  workers_.erase(worker);
  WakePump();
}

// Returns when the worker's task has ended, so that it never is that task which lets go of the
// worker last and would have to wait for itself.
void ZrURLHookService::DropWorker(const WorkerPointer& worker) {
  if (Transceiver() != nullptr) Transceiver()->RemoveServer(worker->JobName());
  if (const auto connection = worker->OwnConnection()) connection->Close();
  worker->EndTasks();
}

// The task of a worker may be in its handler for long: nobody else waits for that.
void ZrURLHookService::DropLater(std::vector<WorkerPointer> workers) {
  ZrLock hold(lock_);
  if (ended_) {
    gone_.insert(gone_.end(), workers.begin(), workers.end());
    return;
  }
  const bool runs = RunLater("ZrURLHookService_drop", [this,
                                                       workers = std::move(workers)]() mutable {
    for (const WorkerPointer& worker : workers) DropWorker(worker);
    workers
        .clear();  // the task is kept until somebody fetches it; they, with their sockets, are not
    ZrLock ended(lock_);
    --dropping_;
    WakePump();
  });
  if (runs) ++dropping_;
}

// ---- Events ------------------------------------------------------------------------------------

bool ZrURLHookService::ReceiveEvent(const ZrJobEvent& event) {
  switch (event.code) {
    case kZrEventWorkerDone:
      OnWorkerDone(event);
      break;
    case kZrEventTimeLimit:
      OnWorkerExpired(event);
      break;
    case kZrEventClosed:
      OnConnectionClosed(event);
      break;
    case kZrEventUnanswered:
      OnUnanswered(event);
      break;
    default:
      break;
  }
  return true;
}

void ZrURLHookService::OnWorkerDone(const ZrJobEvent& event) {
  if (event.fields.contains("ctask")) {
    ZrJobEvent forwarded;
    forwarded.jobName = event.jobName;
    forwarded.code = kZrEventLastMember;
    forwarded.fields = event.fields;
    ZrJobRegistry::Instance().Post(ClientName(), std::move(forwarded));
  }
  const auto found = workers_.find(event.jobName);
  if (found == workers_.end()) return;
  found->second.request = {};
  if (!IsUsable(found->second)) return Remove(found);
  idle_.insert(event.jobName);
  if (!waiting_.empty()) WakePump();
}

void ZrURLHookService::OnWorkerExpired(const ZrJobEvent& event) {
  if (Transceiver() != nullptr) Transceiver()->RemoveServer(event.jobName);
  const auto found = workers_.find(event.jobName);
  if (found == workers_.end()) return;
  Request request = std::move(found->second.request);
  Remove(found);
  if (request.head) Resolve(std::move(request), {ZrSendFailureKind::kTimedOut, "no answer"});
}

// An idle worker goes. A busy one may have the whole answer already: it says itself what became of
// its request.
void ZrURLHookService::OnConnectionClosed(const ZrJobEvent& event) {
  const auto found = std::find_if(workers_.begin(), workers_.end(), [&event](const auto& entry) {
    return entry.second.server->Result() == event.jobName;
  });
  if (found == workers_.end()) return;
  found->second.closed = true;
  if (!found->second.request.head) Remove(found);
}

void ZrURLHookService::OnUnanswered(const ZrJobEvent& event) {
  const auto found = workers_.find(event.jobName);
  if (found == workers_.end()) return;
  Request request = std::move(found->second.request);
  Remove(found);
  if (!request.head) return;
  const auto text = [&event](const char* name) {
    const auto entry = event.fields.find(name);
    return entry == event.fields.end() ? std::string() : entry->second;
  };
  Resolve(std::move(request),
          {zr::SendFailureKindOf(text("reason")), text("error"), event.fields.contains("resend")});
}

// Once more, or it has failed.
void ZrURLHookService::Resolve(Request request, ZrSendFailure failure) {
  if (failure.mayResend && !request.resent) {
    request.resent = true;
    waiting_.push_front(std::move(request));
  } else {
    failed_.push_back({std::move(request.head), std::move(failure)});
  }
  WakePump();
}

// By the end of the joined task, which the handler leaves on this event.
void ZrURLHookService::TellSender(const Failed& failed) noexcept {
  try {
    ZrJobEvent event;
    event.jobName = JobName();
    event.code = kZrEventLastMember;
    event.fields = {{"ctask", failed.head->target},
                    {"head", failed.head->JobName()},
                    {"reason", std::string(zr::SendFailureReason(failed.failure.kind))},
                    {"error", failed.failure.detail}};
    ZrJobRegistry::Instance().Post(ClientName(), std::move(event));
  } catch (...) {
    // Without memory, or a thread for events, nobody can be told anything.
  }
}

void ZrURLHookService::Report(const Failed& failed) {
  TellSender(failed);
  if (!Callback()) return;
  ZrServerCallback_t record;
  record.kind = ZrServerCallback_t::kRequestFailed;
  record.info.Set("ID", failed.head->JobName());
  record.info.Set("url", failed.head->TargetUrl());
  record.info.Set("reason", std::string(zr::SendFailureReason(failed.failure.kind)));
  record.info.Set("error", failed.failure.detail);
  TellOwner(record);
}

void ZrURLHookService::ReportAll(const std::vector<Failed>& failed) noexcept {
  for (const Failed& one : failed) {
    try {
      Report(one);
    } catch (...) {
      // The owner's own failure; the others are told all the same.
    }
  }
}

// ---- The pump ----------------------------------------------------------------------------------

void ZrURLHookService::WakePump() {
  pumpAgain_ = true;
  if (pumping_ || ended_) return;
  pumping_ = RunLater("ZrURLHookService_pump", [this] { Pump(); });
}

void ZrURLHookService::Pump() {
  for (;;) {
    std::vector<WorkerPointer> gone;
    std::vector<Failed> failed;
    {
      ZrLock hold(lock_);
      pumping_ = pumpAgain_ && !ended_;
      // Whatever goes wakes the pump, so the last to go is seen here.
      unused_ = workers_.empty() && waiting_.empty() && starting_ + dropping_ == 0 && !pumping_;
      if (!pumping_) return;
      pumpAgain_ = false;
      gone.swap(gone_);
      failed.swap(failed_);
    }
    if (!gone.empty()) DropLater(std::move(gone));
    ReportAll(failed);
    while (PumpOne()) {
    }
  }
}

// Hands out the first request that waits. No: there is none, or no worker for it.
bool ZrURLHookService::PumpOne() {
  Request request;
  WorkerPointer worker;
  {
    ZrLock hold(lock_);
    if (ended_ || waiting_.empty()) return false;
    request = waiting_.front();
    if (!request.resent) {
      worker = takeIdleWorker(request);
    } else if (!HasPlace() && !idle_.empty()) {
      // It needs a fresh connection: an idle one makes room.
      Remove(workers_.find(*idle_.begin()));
    }
    if (!worker && !HasPlace()) return false;
    waiting_.pop_front();
    if (!worker) {
      if (!StartLater(request)) {
        failed_.push_back({request.head, {ZrSendFailureKind::kNotSent, kNoThread}});
        pumpAgain_ = true;
      }
      return true;
    }
  }
  try {
    deliverToWorker(worker, request);
  } catch (...) {
    // The owner's callback failed, behind the request; those that wait are handed out all the same.
  }
  return true;
}

// On a task of its own. Tasks that have ended are fetched here, so that their number stays small.
// No: the system has no thread for it. That is so when the task is done already, for one that takes
// the lock before it ends.
bool ZrURLHookService::RunLater(const char* name, std::function<void()> run) {
  std::erase_if(tasks_, [this](std::uint64_t id) {
    if (!Scheduler().IsDone(id)) return false;
    Scheduler().FetchResult(id);
    return true;
  });
  ZrRinvalTaskDescription description;
  description.name = name + JobName();
  tasks_.reserve(tasks_.size() + 1);  // a task that runs is one that is waited for
  tasks_.push_back(Scheduler().Submit(
      [run = std::move(run)](ZrRinvalJobParametersAndResult* record) {
        try {
          run();
        } catch (...) {
          // The owner's callback or the memory failed; the pool goes on with its next event.
        }
        return record;
      },
      nullptr, description));
  return !Scheduler().IsDone(tasks_.back());
}

void ZrURLHookService::EndStarts() {
  ZrLock hold(lock_);
  ended_ = true;
  for (const WorkerPointer& worker : startingWorkers_) worker->stop();
}

void ZrURLHookService::EndTasks() {
  EndStarts();
  std::vector<std::uint64_t> tasks;
  std::deque<Request> waiting;  // released without the lock, like all that follows
  std::vector<Failed> failed;
  Workers workers;
  std::vector<WorkerPointer> gone;
  {
    ZrLock hold(lock_);
    tasks.swap(tasks_);
  }
  for (const std::uint64_t task : tasks) {
    Scheduler().WaitDone(task);
    Scheduler().FetchResult(task);
  }
  ZrTransceiverServer::EndTasks();
  {
    ZrLock hold(lock_);
    waiting.swap(waiting_);
    failed.swap(failed_);
    workers.swap(workers_);
    gone.swap(gone_);
    idle_.clear();
  }
  for (const auto& [name, worker] : workers) DropWorker(worker.server);
  for (const WorkerPointer& worker : gone) DropWorker(worker);
  ReportAll(failed);
  // No answer comes any more. A sender that has taken one already does not listen to this.
  for (const Request& request : waiting) TellSender({request.head, {ZrSendFailureKind::kStopped}});
  for (const auto& [name, worker] : workers) {
    if (!worker.request.head) continue;
    TellSender({worker.request.head, {ZrSendFailureKind::kStopped}});
  }
}

ZrOutgoingFactory zr::OutgoingPools() {
  return [](ZrServerSetup setup,
            const ZrConnectingFactory& workers) -> std::shared_ptr<ZrOutgoingLink> {
    return zr::MakeServer<ZrURLHookService>(std::move(setup), workers);
  };
}
