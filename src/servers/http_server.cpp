#include "servers/http_server.h"

#include <functional>
#include <utility>

#include "base/workbench.h"
#include "http/access_log.h"
#include "http/message_head.h"
#include "jobs/job_event.h"
#include "jobs/job_registry.h"
#include "servers/head_output.h"
#include "transceiver/body_inlet.h"
#include "transceiver/message_ends.h"
#include "transceiver/message_handler.h"
#include "transceiver/receive_pass.h"
#include "transceiver/transceiver.h"

namespace {

// How long (ns) a server may hold the receive job in one pass, how much a pass may work for each of
// its messages beyond that, and how long the server stays away from it after a longer one.
constexpr std::int64_t kLongestPass = 2'000'000;
constexpr std::int64_t kMessageWork = 50'000;
constexpr std::int64_t kQueueTime = 1'000'000'000;

// Smaller bodies are among what every connection costs, in bytes of heap.
constexpr std::size_t kCountedBody = 4096;

constexpr std::string_view kContinue = "HTTP/1.1 100 Continue\r\n\r\n";

// A report of a line that the thread makes again and again; its owner may send an answer from it.
struct LogRecord {
  ZrServerCallback_t record;
  bool inUse = false;
};

/// The handler's way into the transceiver stays open while a pass hands it messages.
class Entered {
 public:
  Entered(ZrReceivePass& pass, ZrMessageHandler& handler)
      : pass_(pass), handler_(handler), transceiver_(handler.EnterTransceiver()) {
    pass_.Enter(&handler_, transceiver_);
  }
  ~Entered() {
    pass_.Enter(nullptr, nullptr);
    if (transceiver_ != nullptr) handler_.LeaveTransceiver();
  }
  Entered(const Entered&) = delete;
  Entered& operator=(const Entered&) = delete;

 private:
  ZrReceivePass& pass_;
  ZrMessageHandler& handler_;
  ZrTransceiver* const transceiver_;
};

}  // namespace

// A connection that closed while somebody works on its message goes through the queue like its
// bytes do; else it is forgotten here, with what still waits for it. One that has no message takes
// what waits for it along.
bool ZrTransceiverServerL1HTTP::ReceiveEvent(const ZrJobEvent& event) {
  if (event.code == kZrEventClosed) {
    if (!Persistent() || IsAtWork(event.jobName)) {
      wake(event.jobName);
    } else {
      dropItems(event.jobName);
      ZrTransceiver* const transceiver = Transceiver();
      ForgetConnection(event.jobName,
                       transceiver ? transceiver->FindClient(ClientName()) : nullptr);
    }
  }
  return ZrTransceiverServerL0Socket::ReceiveEvent(event);
}

void ZrTransceiverServerL1HTTP::wake(const std::string& connectionName) {
  ZrReceivePass* const pass = ZrReceivePass::Current();
  if (pass != nullptr && Persistent() &&
      pass->Defer(std::static_pointer_cast<ZrTransceiverServerL1HTTP>(weak_from_this().lock()),
                  connectionName))
    return;
  enqueue(connectionName, ClientName());
}

void ZrTransceiverServerL1HTTP::EndTasks() {
  ZrTransceiverServerL0Socket::EndTasks();
  ZrTransceiver* const transceiver = Transceiver();
  const HandlerPointer client = transceiver ? transceiver->FindClient(ClientName()) : nullptr;
  decltype(exchanges_) ended;
  {
    ZrLock hold(requestLock_);
    ended.swap(exchanges_);
  }
  if (!client) return;
  for (const auto& [name, exchange] : ended) {
    ZrLock hold(exchange->lock);
    if (!exchange->task.empty()) client->HandlerJob().LeaveJoinedTask(exchange->task);
  }
}

// ---- Received messages -------------------------------------------------------------------------

void ZrTransceiverServerL1HTTP::processItem(const std::string& connectionName,
                                            const std::string& clientName) {
  ZrTransceiver* const transceiver = Transceiver();
  if (transceiver == nullptr) return;
  const auto [connection, client] = transceiver->FindEnds(connectionName, clientName);
  if (!Persistent()) return ProcessAnswer(*transceiver, connectionName, connection, client);
  if (!connection) return ForgetConnection(connectionName, client);
  if (!client) return;
  std::shared_ptr<ZrXHeader> complete = TakeComplete(*connection);
  if (!complete && !connection->BeginItem()) return;
  RunTurn({*transceiver, client, SharedHeadName(), false}, connection, std::move(complete));
}

// A pass may have been long because the system let others run, or because much had come: that is
// no reason to go the longer way. Long is one that waited for something, or worked for long.
bool ZrTransceiverServerL1HTTP::TookTooLong(const ZrThreadUse& before, std::size_t messages) const {
  const ZrThreadUse now = ZrThreadUse::Now();
  const bool worked =
      now.cpuNs - before.cpuNs > kLongestPass + static_cast<std::int64_t>(messages) * kMessageWork;
  const bool waited = now.waits != before.waits && now.preemptions == before.preemptions;
  return worked || waited;
}

// On the receive job. A server of which such a pass took too long leaves all to its queue task for
// a while: the connections of every other server wait for this thread. What a thread has used is
// asked of the system only once a pass was longer than it should be: the next such one is judged.
void ZrTransceiverServerL1HTTP::HandleArrived(ZrReceivePass& pass,
                                              std::span<const ConnectionPointer> connections) {
  ZrTransceiver* const transceiver = Transceiver();
  if (transceiver == nullptr || !BeginWork()) return;
  const auto end = [](ZrTransceiverServerL1HTTP* server) { server->EndWork(); };
  const std::unique_ptr<ZrTransceiverServerL1HTTP, decltype(end)> working(this, end);
  const std::int64_t begun = transceiver->Clock().MonotonicNs();
  const HandlerPointer client =
      begun < queueUntil_ ? nullptr : transceiver->FindClient(ClientName());
  if (client) {
    Touch();
    const bool suspect = begun < suspectUntil_;
    const ZrThreadUse before = suspect ? ZrThreadUse::Now() : ZrThreadUse();
    const Entered entered(pass, *client);
    const Work work{*transceiver, client, SharedHeadName(), true};
    for (const ConnectionPointer& connection : connections) {
      pass.WorkOn(connection);
      HandleHere(work, connection);
    }
    const std::int64_t ended = transceiver->Clock().MonotonicNs();
    if (ended - begun <= kLongestPass) return;
    suspectUntil_ = ended + kQueueTime;
    if (suspect && TookTooLong(before, connections.size())) queueUntil_ = ended + kQueueTime;
  } else {
    ZrTransceiverServerL0Socket::HandleArrived(pass, connections);
  }
}

void ZrTransceiverServerL1HTTP::HandleHere(const Work& work, const ConnectionPointer& connection) {
  // A body may have to be written to the disk as it arrives.
  const Exchange* const exchange = ExchangeOf(*connection);
  if (!connection->IsListed() || (exchange != nullptr && exchange->bodyUnderWay))
    return enqueue(connection->JobName(), ClientName());
  if (connection->BeginItem()) RunTurn(work, connection, nullptr);
}

void ZrTransceiverServerL1HTTP::RunTurn(const Work& work, const ConnectionPointer& connection,
                                        std::shared_ptr<ZrXHeader> complete) {
  const std::uint32_t item = connection->Item();
  bool answerToCome = false;
  try {
    if (!complete) complete = Assemble(work.transceiver, connection, work.client);
    if (complete && work.here && !work.client->CannotWait(*complete))
      return LeaveToQueue(connection);
    answerToCome = complete && HandOut(work, connection, complete);
  } catch (...) {
    // Memory ran out, or the handler failed: this connection is given up.
    return GoOn(connection, connection->EndItemAndClose(item));
  }
  if (!answerToCome) EndTurn(connection);
}

// The turn goes on there.
void ZrTransceiverServerL1HTTP::LeaveToQueue(const ConnectionPointer& connection) {
  if (Exchange* const exchange = ExchangeOf(*connection)) {
    ZrLock hold(exchange->lock);
    exchange->complete = true;
    exchange->atWork = false;
  }
  enqueue(connection->JobName(), ClientName());
}

std::shared_ptr<ZrXHeader> ZrTransceiverServerL1HTTP::TakeComplete(
    const ZrTransceiverConnection& connection) {
  Exchange* const exchange = ExchangeOf(connection);
  if (exchange == nullptr) return nullptr;
  ZrLock hold(exchange->lock);
  if (!std::exchange(exchange->complete, false)) return nullptr;
  exchange->atWork = true;
  return exchange->head;
}

std::shared_ptr<ZrXHeader> ZrTransceiverServerL1HTTP::Assemble(ZrTransceiver& transceiver,
                                                               const ConnectionPointer& connection,
                                                               const HandlerPointer& client) {
  const bool late = connection->Limits().TakeLate();
  std::shared_ptr<ZrXHeader> head = MessageOf(connection, client);
  if (!head) return nullptr;
  ZrReadStep step = ZrReadStep::kClose;
  {
    ZrLock hold(head->Lock());
    connection->TakeReceived(head->Input());
    step = head->semantics->Read(
        *head, [&client](ZrXHeader& read) { return client->OnHeadComplete(read); });
    // One that is complete by now after all has its answer instead.
    if (late && step != ZrReadStep::kComplete && step != ZrReadStep::kClose &&
        head->semantics->RefuseLate(*head))
      step = ZrReadStep::kComplete;
  }
  if (step == ZrReadStep::kHead) {
    connection->Limits().BeginHead(head->semantics);
    Rest(*connection, false);
    return nullptr;
  }
  connection->Limits().EndHead();
  if (const std::size_t held = head->body->HeapBytes(); held > kCountedBody) {
    if (head->memory.Bytes() == 0) head->memory = ZrMemoryShare(transceiver.Memory());
    head->memory.Set(held);
  }
  if (head->restOnly) {
    ReadOff(connection, *head, step);
    return nullptr;
  }
  if (step == ZrReadStep::kContinue) {
    std::size_t accepted = 0;
    connection->SendBytes(kContinue.data(), kContinue.size(), accepted);
    transceiver.FlushConnection(*connection);
  }
  const bool incomplete = step == ZrReadStep::kBody || step == ZrReadStep::kContinue;
  if (incomplete && head->bodyFlows) {
    head->inlet = std::make_shared<ZrBodyInlet>(head->MakeBodyReader(), connection);
    return head;
  }
  if (incomplete) {
    connection->Limits().NoteBody(*head->semantics, head->BodyBytes(), head->body->HeapBytes());
    Rest(*connection, true);
    return nullptr;
  }
  connection->Limits().EndBody();
  if (step == ZrReadStep::kComplete) return head;
  DropMessage(*connection);
  connection->CloseAfterItem();
  return nullptr;
}

// As for a body that nobody wants: counted and dropped, within the same limits.
void ZrTransceiverServerL1HTTP::ReadOff(const ConnectionPointer& connection, ZrXHeader& head,
                                        ZrReadStep step) {
  ZrStringBuf dropped;
  head.TakeArrivedBody(dropped);
  if (step == ZrReadStep::kBody) {
    connection->Limits().NoteBody(*head.semantics, head.BodyBytes(), 0);
    return Rest(*connection, true);
  }
  connection->Limits().EndBody();
  if (head.surplus) connection->PutBack(*head.surplus);
  if (head.refusal != 0) connection->CloseAfterItem();
  DropMessage(*connection);
}

bool ZrTransceiverServerL1HTTP::HandOut(const Work& work, const ConnectionPointer& connection,
                                        const std::shared_ptr<ZrXHeader>& head) {
  if (head->surplus) connection->PutBack(*head->surplus);
  // Asked for before the answer can be on its way, which ends the turn.
  if (head->closeRequested || head->endUncertain) connection->CloseAfterItem();
  LetGo(*connection);
  if (work.client->HandleMessage(work.headName, head) == 0) {
    connection->CloseAfterItem();
    return false;
  }
  EndWorkOn(*connection);
  if (!head->answered) return true;
  connection->Reset();
  if (head->route.size() > 1) work.transceiver.ReleaseServerTask(head->route[1]);
  return true;
}

void ZrTransceiverServerL1HTTP::EndTurn(const ConnectionPointer& connection) {
  GoOn(connection, connection->EndItem());
}

void ZrTransceiverServerL1HTTP::GoOn(const ConnectionPointer& connection,
                                     ZrTransceiverConnection::AfterItem next) {
  switch (next) {
    case ZrTransceiverConnection::AfterItem::kNothing:
      return;
    case ZrTransceiverConnection::AfterItem::kWake:
      return wake(connection->JobName());
    case ZrTransceiverConnection::AfterItem::kClose:
      return connection->Close();
  }
}

// The message of the connection, a new one when bytes wait for it; nothing when there is nothing.
std::shared_ptr<ZrXHeader> ZrTransceiverServerL1HTTP::MessageOf(const ConnectionPointer& connection,
                                                                const HandlerPointer& client) {
  Exchange* exchange = ExchangeOf(*connection);
  const bool received = connection->HasReceived();
  // Somebody may have given the connection another joined task.
  if (received && (exchange == nullptr || !exchange->entered || !exchange->ends ||
                   !connection->IsIn(exchange->ends->target)))
    exchange = &EnterConnection(connection, client);
  if (exchange == nullptr) return nullptr;
  ZrLock hold(exchange->lock);
  if (!exchange->head && received) exchange->head = NewMessage(*connection, exchange->ends);
  if (exchange->head) exchange->atWork = true;
  return exchange->head;
}

ZrTransceiverServerL1HTTP::Exchange& ZrTransceiverServerL1HTTP::EnterConnection(
    const ConnectionPointer& connection, const HandlerPointer& client) {
  const auto exchange = std::static_pointer_cast<Exchange>(
      connection->KeepForServer(std::make_shared<Exchange>(RemoteOf(*connection))));
  std::string target = connection->JoinedTaskName();
  std::string task;
  if (target.empty()) {
    ZrJob& job = client->HandlerJob();
    task = job.CreateJoinedTaskFor("receive_" + job.JobName());
    target = task;
  }
  const ZrTaskHandle place = ZrJobRegistry::Instance().Find(target);
  exchange->ends = std::make_shared<const ZrMessageEnds>(
      ZrMessageEnds{.connection = connection,
                    .server = weak_from_this(),
                    .handler = client.get(),
                    .route = {connection->JobName(), JobName()},
                    .target = std::move(target),
                    .task = place});
  bool first = false;
  {
    ZrLock hold(requestLock_);
    first = !exchange->entered;
    if (first) exchanges_.insert_or_assign(connection->JobName(), exchange);
    exchange->entered = true;
    ZrLock change(exchange->lock);
    exchange->atWork = true;
    if (!task.empty()) exchange->task = std::move(task);
  }
  // The end of a connection goes through the queue when it finds the message; one that came before
  // did not.
  if (first && !connection->IsListed()) wake(connection->JobName());
  return *exchange;
}

bool ZrTransceiverServerL1HTTP::IsAtWork(const std::string& connectionName) {
  ZrLock hold(requestLock_);
  const auto found = exchanges_.find(connectionName);
  if (found == exchanges_.end()) return false;
  ZrLock look(found->second->lock);
  return found->second->atWork;
}

std::shared_ptr<ZrXHeader> ZrTransceiverServerL1HTTP::NewMessage(
    const ZrTransceiverConnection& connection, std::shared_ptr<const ZrMessageEnds> ends) {
  auto head = zr::MakeJob<ZrXHeader>(ZrMessageType::kPost, ProtocolKind());
  head->semantics = semantics_;
  head->target = ends->target;
  head->route = ends->route;
  head->presence = ZrTaskGuest(ends->task);
  head->ends = std::move(ends);
  head->SetPeerRecord(connection.PeerRecord());
  head->peerWatch = connection.PeerWatch();
  head->body = std::make_unique<ZrStringBuf>();
  return head;
}

std::shared_ptr<ZrXHeader> ZrTransceiverServerL1HTTP::NewAnswer(
    ZrTransceiverConnection& connection) {
  auto ends = std::make_shared<const ZrMessageEnds>(ZrMessageEnds{
      .route = {connection.JobName(), JobName()}, .target = connection.JoinedTaskName()});
  auto head = NewMessage(connection, std::move(ends));
  head->ends = nullptr;
  head->Attach(head->target);
  return head;
}

void ZrTransceiverServerL1HTTP::DropMessage(const ZrTransceiverConnection& connection) {
  Exchange* const exchange = ExchangeOf(connection);
  if (exchange == nullptr) return;
  std::shared_ptr<ZrXHeader> dropped;  // released without the lock
  ZrLock hold(exchange->lock);
  dropped = std::move(exchange->head);
  exchange->atWork = exchange->bodyUnderWay = false;
}

void ZrTransceiverServerL1HTTP::LetGo(const ZrTransceiverConnection& connection) {
  Exchange* const exchange = ExchangeOf(connection);
  if (exchange == nullptr) return;
  ZrLock hold(exchange->lock);
  exchange->head = nullptr;  // the caller has it
  exchange->bodyUnderWay = false;
}

void ZrTransceiverServerL1HTTP::EndWorkOn(const ZrTransceiverConnection& connection) {
  Exchange* const exchange = ExchangeOf(connection);
  if (exchange == nullptr) return;
  ZrLock hold(exchange->lock);
  if (!exchange->head) exchange->atWork = false;
}

// More of the message is to come.
void ZrTransceiverServerL1HTTP::Rest(const ZrTransceiverConnection& connection, bool bodyUnderWay) {
  Exchange* const exchange = ExchangeOf(connection);
  if (exchange == nullptr) return;
  ZrLock hold(exchange->lock);
  exchange->atWork = false;
  exchange->bodyUnderWay = bodyUnderWay;
}

void ZrTransceiverServerL1HTTP::ForgetConnection(const std::string& connectionName,
                                                 const HandlerPointer& client) {
  decltype(exchanges_)::node_type forgotten;
  std::shared_ptr<ZrXHeader> dropped;
  std::string task;
  {
    ZrLock hold(requestLock_);
    forgotten = exchanges_.extract(connectionName);
    if (!forgotten) return;
    Exchange& exchange = *forgotten.mapped();
    exchange.entered = exchange.bodyUnderWay = false;
    ZrLock change(exchange.lock);
    dropped = std::move(exchange.head);
    exchange.atWork = exchange.complete = false;
    task.swap(exchange.task);
  }
  if (client && !task.empty()) client->HandlerJob().LeaveJoinedTask(task);
}

// ---- Sent messages -----------------------------------------------------------------------------

bool ZrTransceiverServerL1HTTP::SendHead(const ConnectionPointer& connection,
                                         const std::shared_ptr<ZrXHeader>& head) {
  const bool isRequest = head->kind == ZrMessageKind::kRequest;
  if (isRequest && connection) DropMessage(*connection);
  if (!Persistent()) Touch();  // one that listens has no time limit
  if (!Timing()) {
    LeaveTask(*head);
    return false;
  }
  ZrTransceiver* const transceiver = Transceiver();
  if (isRequest && !Persistent()) {
    const ZrSendFailure failure = SendRequest(transceiver, connection, *head);
    LeaveTask(*head);
    if (failure.kind != ZrSendFailureKind::kNone) ReportUnanswered(failure);
  } else {
    if (connection && transceiver != nullptr) Write(*transceiver, *connection, *head);
    LeaveTask(*head);
    if (connection && head->inlet) CutBody(*connection, *head);
    if (connection && !isRequest) EndTurn(connection);
  }
  if (connection && !Callback()) throw std::bad_function_call();
  return true;
}

void ZrTransceiverServerL1HTTP::EndAnswer(const ConnectionPointer& connection,
                                          const std::shared_ptr<ZrXHeader>& head,
                                          std::uint64_t bytes, Ended ended) {
  Touch();
  LeaveTask(*head);
  if (!Timing()) return;
  try {
    Log(*connection, *head, bytes);
  } catch (...) {
    // For want of memory it goes without a line.
  }
  if (ended == Ended::kCut) connection->CloseAfterItem();
  if (head->inlet) CutBody(*connection, *head);
  if (ZrTransceiver* const transceiver = Transceiver(); ended == Ended::kReset && transceiver)
    transceiver->ResetConnection(*connection);
  EndTurn(connection);
}

// Before the turn ends: what comes next is not read as a request.
void ZrTransceiverServerL1HTTP::CutBody(const ZrTransceiverConnection& connection,
                                        ZrXHeader& answer) {
  std::shared_ptr<ZrXHeader> rest = answer.inlet->Cut();
  if (!rest) return;
  rest->restOnly = true;
  Exchange* const exchange = ExchangeOf(connection);
  if (exchange == nullptr) return;
  ZrLock hold(requestLock_);
  if (!exchange->entered) return;
  ZrLock change(exchange->lock);
  exchange->head.swap(rest);
  exchange->bodyUnderWay = true;
}

void ZrTransceiverServerL1HTTP::Write(ZrTransceiver& transceiver,
                                      ZrTransceiverConnection& connection,
                                      ZrXHeader& head) noexcept {
  try {
    connection.Attach(head.target);
    ZrStringBuf out;
    const std::uint64_t bytes = zr::WriteMessage(connection, head, out);
    transceiver.FlushConnection(connection, out);
    Log(connection, head, bytes);
    if (head.closeRequested) connection.CloseAfterItem();
  } catch (...) {
    // Memory ran out. A part of the message may have gone: nothing may follow it.
    transceiver.RemoveConnection(connection);
  }
}

std::string_view ZrTransceiverServerL1HTTP::RemoteOf(const ZrTransceiverConnection& connection) {
  const auto& peer = connection.PeerRecord()->info.entries();
  const auto remote = peer.find("remoteaddress");
  return remote == peer.end() ? "none" : std::string_view(remote->second);
}

void ZrTransceiverServerL1HTTP::Log(const ZrTransceiverConnection& connection,
                                    const ZrXHeader& head, std::uint64_t bytes) {
  if (!Callback()) return;
  const Exchange* const exchange = ExchangeOf(connection);
  const auto referer = head.RequestField("referer");
  const auto userAgent = head.RequestField("user-agent");
  // The own form does not tell it.
  const auto words = logFormat_ == zr::AccessLogFormat::kVelkoro
                         ? ZrHeaderFields::Values()
                         : head.RequestField(zr::kFirstLine);
  const zr::AccessLogEntry entry{
      .remote = exchange == nullptr ? RemoteOf(connection) : exchange->remote,
      .scheme = zr::ProtocolSchemeName(head.ProtocolKind()),
      .created = head.created,
      .requestText = head.requestSummary,
      .version = words.size() > 2 ? words[2] : std::string_view(),
      .status = head.status,
      .bytes = bytes,
      .headBytes = head.headBytes,
      .referer = referer.empty() ? "-" : referer.front(),
      .userAgent = userAgent.empty() ? "-" : userAgent.front(),
  };
  ZrWorkbench* const workbench = ZrWorkbench::Current();
  LogRecord* const kept = workbench == nullptr ? nullptr : &workbench->Of<LogRecord>();
  if (kept == nullptr || kept->inUse) {
    LogRecord once;
    return Report(once.record, entry);
  }
  kept->inUse = true;
  Report(kept->record, entry);
  kept->inUse = false;
}

// The owner may have changed the record since it was used last.
void ZrTransceiverServerL1HTTP::Report(ZrServerCallback_t& record,
                                       const zr::AccessLogEntry& entry) const {
  record.kind = ZrServerCallback_t::kMessageLogged;
  std::string& line = record.info.Only("logging");
  line.clear();
  zr::AppendAccessLogLine(line, entry, logFormat_);
  TellOwner(record);
}

std::string ZrTransceiverServerL1HTTP::PeerText(std::string numericName) const {
  constexpr std::string_view kMapped = "::ffff:";
  if (semantics_->IsStandard() && numericName.starts_with(kMapped) &&
      numericName.find('.') != std::string::npos)
    numericName.erase(0, kMapped.size());
  return numericName;
}
