#include "servers/http_server.h"

#include <functional>
#include <utility>

#include "http/access_log.h"
#include "http/message_head.h"
#include "jobs/job_event.h"
#include "servers/head_output.h"
#include "transceiver/body_inlet.h"
#include "transceiver/message_ends.h"
#include "transceiver/message_handler.h"
#include "transceiver/receive_pass.h"
#include "transceiver/transceiver.h"

namespace {

// How long (ns) a server may hold the receive job in one pass, and how long it stays away from it
// after a longer one.
constexpr std::int64_t kLongestPass = 2'000'000;
constexpr std::int64_t kQueueTime = 1'000'000'000;

// Smaller bodies are among what every connection costs, in bytes of heap.
constexpr std::size_t kCountedBody = 4096;

constexpr std::string_view kContinue = "HTTP/1.1 100 Continue\r\n\r\n";

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
  for (const auto& [name, exchange] : ended)
    if (!exchange.task.empty()) client->HandlerJob().LeaveJoinedTask(exchange.task);
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
  std::shared_ptr<ZrXHeader> complete = TakeComplete(connectionName);
  if (!complete && !connection->BeginItem()) return;
  RunTurn(*transceiver, connection, client, std::move(complete), false);
}

// On the receive job. A server of which such a pass took long leaves all to its queue task for a
// while: the connections of every other server wait for this thread.
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
    for (const ConnectionPointer& connection : connections) {
      pass.WorkOn(connection);
      HandleHere(*transceiver, connection, client);
    }
    if (const std::int64_t ended = transceiver->Clock().MonotonicNs(); ended - begun > kLongestPass)
      queueUntil_ = ended + kQueueTime;
  } else {
    ZrTransceiverServerL0Socket::HandleArrived(pass, connections);
  }
}

void ZrTransceiverServerL1HTTP::HandleHere(ZrTransceiver& transceiver,
                                           const ConnectionPointer& connection,
                                           const HandlerPointer& client) {
  // A body may have to be written to the disk as it arrives.
  if (!connection->IsListed() || HasBodyUnderWay(connection->JobName()))
    return enqueue(connection->JobName(), ClientName());
  if (connection->BeginItem()) RunTurn(transceiver, connection, client, nullptr, true);
}

void ZrTransceiverServerL1HTTP::RunTurn(ZrTransceiver& transceiver,
                                        const ConnectionPointer& connection,
                                        const HandlerPointer& client,
                                        std::shared_ptr<ZrXHeader> complete, bool here) {
  const std::uint32_t item = connection->Item();
  bool answerToCome = false;
  try {
    if (!complete) complete = Assemble(transceiver, connection, client);
    if (complete && here && !client->CannotWait(*complete)) return LeaveToQueue(connection);
    answerToCome = complete && HandOut(transceiver, connection, client, complete);
  } catch (...) {
    // Memory ran out, or the handler failed: this connection is given up.
    return GoOn(connection, connection->EndItemAndClose(item));
  }
  if (!answerToCome) EndTurn(connection);
}

// The turn goes on there.
void ZrTransceiverServerL1HTTP::LeaveToQueue(const ConnectionPointer& connection) {
  {
    ZrLock hold(requestLock_);
    const auto found = exchanges_.find(connection->JobName());
    if (found != exchanges_.end()) {
      found->second.complete = true;
      found->second.atWork = false;
    }
  }
  enqueue(connection->JobName(), ClientName());
}

bool ZrTransceiverServerL1HTTP::HasBodyUnderWay(const std::string& connectionName) {
  ZrLock hold(requestLock_);
  const auto found = exchanges_.find(connectionName);
  return found != exchanges_.end() && found->second.bodyUnderWay;
}

std::shared_ptr<ZrXHeader> ZrTransceiverServerL1HTTP::TakeComplete(
    const std::string& connectionName) {
  ZrLock hold(requestLock_);
  const auto found = exchanges_.find(connectionName);
  if (found == exchanges_.end() || !std::exchange(found->second.complete, false)) return nullptr;
  found->second.atWork = true;
  return found->second.head;
}

std::shared_ptr<ZrXHeader> ZrTransceiverServerL1HTTP::Assemble(ZrTransceiver& transceiver,
                                                               const ConnectionPointer& connection,
                                                               const HandlerPointer& client) {
  const bool late = connection->TakeLate();
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
    connection->BeginHead(head->semantics);
    Rest(connection->JobName(), false);
    return nullptr;
  }
  connection->EndHead();
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
    connection->NoteBody(*head->semantics, head->BodyBytes(), head->body->HeapBytes());
    Rest(connection->JobName(), true);
    return nullptr;
  }
  connection->EndBody();
  if (step == ZrReadStep::kComplete) return head;
  DropMessage(connection->JobName());
  connection->CloseAfterItem();
  return nullptr;
}

// As for a body that nobody wants: counted and dropped, within the same limits.
void ZrTransceiverServerL1HTTP::ReadOff(const ConnectionPointer& connection, ZrXHeader& head,
                                        ZrReadStep step) {
  ZrStringBuf dropped;
  head.TakeArrivedBody(dropped);
  if (step == ZrReadStep::kBody) {
    connection->NoteBody(*head.semantics, head.BodyBytes(), 0);
    return Rest(connection->JobName(), true);
  }
  connection->EndBody();
  if (head.surplus) connection->PutBack(*head.surplus);
  if (head.refusal != 0) connection->CloseAfterItem();
  DropMessage(connection->JobName());
}

bool ZrTransceiverServerL1HTTP::HandOut(ZrTransceiver& transceiver,
                                        const ConnectionPointer& connection,
                                        const HandlerPointer& client,
                                        const std::shared_ptr<ZrXHeader>& head) {
  if (head->surplus) connection->PutBack(*head->surplus);
  // Asked for before the answer can be on its way, which ends the turn.
  if (head->closeRequested || head->endUncertain) connection->CloseAfterItem();
  LetGo(connection->JobName());
  if (client->HandleMessage(HeadName(), head) == 0) {
    connection->CloseAfterItem();
    return false;
  }
  EndWorkOn(connection->JobName());
  if (!head->answered) return true;
  connection->Reset();
  if (head->route.size() > 1) transceiver.ReleaseServerTask(head->route[1]);
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
  {
    ZrLock hold(requestLock_);
    const auto found = exchanges_.find(connection->JobName());
    if (found != exchanges_.end() && found->second.head) {
      found->second.atWork = true;
      return found->second.head;
    }
  }
  if (!connection->HasReceived()) return nullptr;
  std::string target = connection->HandlerName();
  std::string task;
  if (target.empty()) {
    ZrJob& job = client->HandlerJob();
    task = job.CreateJoinedTaskFor("receive_" + job.JobName());
    target = task;
  }
  std::shared_ptr<ZrXHeader> head = NewMessage(*connection, std::move(target));
  bool first = false;
  {
    ZrLock hold(requestLock_);
    const auto [place, added] = exchanges_.try_emplace(connection->JobName());
    Exchange& exchange = place->second;
    if (!exchange.ends) {
      exchange.ends = std::make_shared<const ZrMessageEnds>(
          ZrMessageEnds{connection, weak_from_this(), client.get()});
    }
    head->ends = exchange.ends;
    exchange.head = head;
    exchange.atWork = true;
    if (!task.empty()) exchange.task = std::move(task);
    first = added;
  }
  // The end of a connection goes through the queue when it finds the message; one that came before
  // did not.
  if (first && !connection->IsListed()) wake(connection->JobName());
  return head;
}

bool ZrTransceiverServerL1HTTP::IsAtWork(const std::string& connectionName) {
  ZrLock hold(requestLock_);
  const auto found = exchanges_.find(connectionName);
  return found != exchanges_.end() && found->second.atWork;
}

std::shared_ptr<ZrXHeader> ZrTransceiverServerL1HTTP::NewMessage(
    const ZrTransceiverConnection& connection, std::string task) {
  auto head = zr::MakeJob<ZrXHeader>(ZrMessageType::kPost, ProtocolKind());
  head->semantics = semantics_;
  head->target = std::move(task);
  head->route = {connection.JobName(), JobName()};
  head->SetPeerRecord(connection.PeerRecord());
  head->peerWatch = connection.PeerWatch();
  head->Attach(head->target);
  head->body = std::make_unique<ZrStringBuf>();
  return head;
}

void ZrTransceiverServerL1HTTP::DropMessage(const std::string& connectionName) {
  std::shared_ptr<ZrXHeader> dropped;  // released without the lock
  ZrLock hold(requestLock_);
  const auto found = exchanges_.find(connectionName);
  if (found == exchanges_.end()) return;
  dropped = std::move(found->second.head);
  found->second.atWork = found->second.bodyUnderWay = false;
}

void ZrTransceiverServerL1HTTP::LetGo(const std::string& connectionName) {
  ZrLock hold(requestLock_);
  const auto found = exchanges_.find(connectionName);
  if (found == exchanges_.end()) return;
  found->second.head = nullptr;  // the caller has it
  found->second.bodyUnderWay = false;
}

void ZrTransceiverServerL1HTTP::EndWorkOn(const std::string& connectionName) {
  ZrLock hold(requestLock_);
  const auto found = exchanges_.find(connectionName);
  if (found != exchanges_.end() && !found->second.head) found->second.atWork = false;
}

// More of the message is to come.
void ZrTransceiverServerL1HTTP::Rest(const std::string& connectionName, bool bodyUnderWay) {
  ZrLock hold(requestLock_);
  const auto found = exchanges_.find(connectionName);
  if (found == exchanges_.end()) return;
  found->second.atWork = false;
  found->second.bodyUnderWay = bodyUnderWay;
}

void ZrTransceiverServerL1HTTP::ForgetConnection(const std::string& connectionName,
                                                 const HandlerPointer& client) {
  decltype(exchanges_)::node_type forgotten;
  {
    ZrLock hold(requestLock_);
    forgotten = exchanges_.extract(connectionName);
  }
  if (forgotten && client && !forgotten.mapped().task.empty())
    client->HandlerJob().LeaveJoinedTask(forgotten.mapped().task);
}

// ---- Sent messages -----------------------------------------------------------------------------

bool ZrTransceiverServerL1HTTP::SendHead(const ConnectionPointer& connection,
                                         const std::shared_ptr<ZrXHeader>& head) {
  const bool isRequest = head->kind == ZrMessageKind::kRequest;
  if (isRequest && connection) DropMessage(connection->JobName());
  Touch();
  if (!Timing()) {
    LeaveJoinedTask(head->target);
    return false;
  }
  ZrTransceiver* const transceiver = Transceiver();
  if (isRequest && !Persistent()) {
    const ZrSendFailure failure = SendRequest(transceiver, connection, *head);
    LeaveJoinedTask(head->target);
    if (failure.kind != ZrSendFailureKind::kNone) ReportUnanswered(failure);
  } else {
    if (connection && transceiver != nullptr) Write(*transceiver, *connection, *head);
    LeaveJoinedTask(head->target);
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
  LeaveJoinedTask(head->target);
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
  ZrLock hold(requestLock_);
  const auto found = exchanges_.find(connection.JobName());
  if (found == exchanges_.end()) return;
  found->second.head.swap(rest);
  found->second.bodyUnderWay = true;
}

void ZrTransceiverServerL1HTTP::Write(ZrTransceiver& transceiver,
                                      ZrTransceiverConnection& connection,
                                      ZrXHeader& head) noexcept {
  try {
    connection.Attach(head.target);
    const std::uint64_t bytes = zr::QueueMessage(connection, head);
    transceiver.FlushConnection(connection);
    Log(connection, head, bytes);
    if (head.closeRequested) connection.CloseAfterItem();
  } catch (...) {
    // Memory ran out. A part of the message may have gone: nothing may follow it.
    transceiver.RemoveConnection(connection);
  }
}

void ZrTransceiverServerL1HTTP::Log(const ZrTransceiverConnection& connection,
                                    const ZrXHeader& head, std::uint64_t bytes) {
  if (!Callback()) return;
  const auto& peer = connection.PeerRecord()->info.entries();
  const auto remote = peer.find("remoteaddress");
  const auto referer = head.RequestField("referer");
  const auto userAgent = head.RequestField("user-agent");
  const auto words = head.RequestField(zr::kFirstLine);
  ZrServerCallback_t record;
  record.kind = ZrServerCallback_t::kMessageLogged;
  record.info.Set(
      "logging", zr::AccessLogLine(
                     {
                         .remote = remote == peer.end() ? "none" : std::string_view(remote->second),
                         .scheme = zr::ProtocolSchemeName(head.ProtocolKind()),
                         .created = head.created,
                         .requestText = head.requestSummary,
                         .version = words.size() > 2 ? words[2] : std::string_view(),
                         .status = head.status,
                         .bytes = bytes,
                         .headBytes = head.headBytes,
                         .referer = referer.empty() ? "-" : referer.front(),
                         .userAgent = userAgent.empty() ? "-" : userAgent.front(),
                     },
                     logFormat_));
  TellOwner(record);
}

std::string ZrTransceiverServerL1HTTP::PeerText(std::string numericName) const {
  constexpr std::string_view kMapped = "::ffff:";
  if (semantics_->IsStandard() && numericName.starts_with(kMapped) &&
      numericName.find('.') != std::string::npos)
    numericName.erase(0, kMapped.size());
  return numericName;
}
