#include "servers/http_server.h"

#include <functional>
#include <utility>

#include "http/access_log.h"
#include "http/message_head.h"
#include "jobs/job_event.h"
#include "servers/head_output.h"
#include "transceiver/message_ends.h"
#include "transceiver/message_handler.h"
#include "transceiver/transceiver.h"

namespace {

// Smaller bodies are among what every connection costs, in bytes of heap.
constexpr std::size_t kCountedBody = 4096;

constexpr std::string_view kContinue = "HTTP/1.1 100 Continue\r\n\r\n";

}  // namespace

// A closed connection goes through the queue like its bytes do: its message is dropped behind the
// last item that may still work on it. One that has no message takes what waits for it along.
bool ZrTransceiverServerL1HTTP::ReceiveEvent(const ZrJobEvent& event) {
  if (event.code == kZrEventClosed) {
    if (!Persistent() || HasExchange(event.jobName)) {
      wake(event.jobName);
    } else {
      dropItems(event.jobName);
    }
  }
  return ZrTransceiverServerL0Socket::ReceiveEvent(event);
}

void ZrTransceiverServerL1HTTP::wake(const std::string& connectionName) {
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
    if (!exchange.task.empty()) client->HandlerJob().LeaveJoinedTask(exchange.task);
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
  if (!client || !connection->BeginItem()) return;
  bool answerToCome = false;
  try {
    answerToCome = Assemble(*transceiver, connection, client);
  } catch (...) {
    // Memory ran out, or the handler failed: this connection is given up.
    DropMessage(connectionName);
    connection->CloseAfterItem();
  }
  if (!answerToCome) EndTurn(connection);
}

bool ZrTransceiverServerL1HTTP::Assemble(ZrTransceiver& transceiver,
                                         const ConnectionPointer& connection,
                                         const HandlerPointer& client) {
  const std::shared_ptr<ZrXHeader> head = MessageOf(connection, client);
  if (!head) return false;
  ZrReadStep step = ZrReadStep::kClose;
  {
    ZrLock hold(head->Lock());
    connection->TakeReceived(head->Input());
    step = head->semantics->Read(
        *head, [&client](ZrXHeader& read) { return client->OnHeadComplete(read); });
  }
  if (step == ZrReadStep::kHead) {
    connection->BeginHead(head->semantics);
    return false;
  }
  connection->EndHead();
  if (const std::size_t held = head->body->HeapBytes(); held > kCountedBody) {
    if (head->memory.Bytes() == 0) head->memory = ZrMemoryShare(transceiver.Memory());
    head->memory.Set(held);
  }
  if (step == ZrReadStep::kContinue) {
    std::size_t accepted = 0;
    connection->SendBytes(kContinue.data(), kContinue.size(), accepted);
    transceiver.FlushConnection(*connection);
  }
  if (step == ZrReadStep::kBody || step == ZrReadStep::kContinue) {
    connection->NoteBody(*head->semantics, head->BodyBytes(), head->body->HeapBytes());
    return false;
  }
  connection->EndBody();
  if (step == ZrReadStep::kComplete) return HandOut(transceiver, connection, client, head);
  DropMessage(connection->JobName());
  connection->CloseAfterItem();
  return false;
}

bool ZrTransceiverServerL1HTTP::HandOut(ZrTransceiver& transceiver,
                                        const ConnectionPointer& connection,
                                        const HandlerPointer& client,
                                        const std::shared_ptr<ZrXHeader>& head) {
  if (head->surplus) connection->PutBack(*head->surplus);
  // Asked for before the answer can be on its way, which ends the turn.
  if (head->closeRequested || head->endUncertain) connection->CloseAfterItem();
  if (client->HandleMessage(HeadName(), head) == 0) {
    DropMessage(connection->JobName());
    connection->CloseAfterItem();
    return false;
  }
  DropMessage(connection->JobName());
  if (!head->answered) return true;
  connection->Reset();
  if (head->route.size() > 1) transceiver.ReleaseServerTask(head->route[1]);
  return true;
}

void ZrTransceiverServerL1HTTP::EndTurn(const ConnectionPointer& connection) {
  switch (connection->EndItem()) {
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
    if (found != exchanges_.end() && found->second.head) return found->second.head;
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
    if (!task.empty()) exchange.task = std::move(task);
    first = added;
  }
  // The end of a connection goes through the queue when it finds the message; one that came before
  // did not.
  if (first && !connection->IsListed()) wake(connection->JobName());
  return head;
}

bool ZrTransceiverServerL1HTTP::HasExchange(const std::string& connectionName) {
  ZrLock hold(requestLock_);
  return exchanges_.contains(connectionName);
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
  if (found != exchanges_.end()) dropped = std::move(found->second.head);
}

void ZrTransceiverServerL1HTTP::ForgetConnection(const std::string& connectionName,
                                                 const HandlerPointer& client) {
  decltype(exchanges_)::node_type forgotten;
  {
    ZrLock hold(requestLock_);
    forgotten = exchanges_.extract(connectionName);
  }
  if (forgotten && client && !forgotten.mapped().task.empty()) {
    client->HandlerJob().LeaveJoinedTask(forgotten.mapped().task);
  }
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
    if (connection && !isRequest) EndTurn(connection);
  }
  if (connection && !Callback()) throw std::bad_function_call();
  return true;
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
  ZrServerCallback_t record;
  record.kind = ZrServerCallback_t::kMessageLogged;
  record.info.Set("logging",
                  zr::AccessLogLine({
                      .remote = remote == peer.end() ? "none" : std::string_view(remote->second),
                      .scheme = zr::ProtocolSchemeName(head.ProtocolKind()),
                      .seconds = head.created / 10'000'000,
                      .requestText = head.requestSummary,
                      .status = head.status,
                      .bytes = bytes,
                      .referer = referer.empty() ? "-" : referer.front(),
                      .userAgent = userAgent.empty() ? "-" : userAgent.front(),
                  }));
  TellOwner(record);
}
