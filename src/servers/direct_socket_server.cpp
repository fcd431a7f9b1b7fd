#include "servers/direct_socket_server.h"

#include <functional>
#include <utility>

#include "http/message_head.h"
#include "jobs/job_event.h"
#include "transceiver/connection.h"
#include "transceiver/message_ends.h"
#include "transceiver/message_handler.h"
#include "transceiver/transceiver.h"

void ZrTransceiverServerL1DirectSocket::wake(const std::string& connectionName) {
  enqueue(connectionName, ClientName());
}

// As in the HTTP family: the end of a connection goes through the queue behind its bytes.
bool ZrTransceiverServerL1DirectSocket::ReceiveEvent(const ZrJobEvent& event) {
  if (event.code == kZrEventClosed) Persistent() ? dropItems(event.jobName) : wake(event.jobName);
  return ZrTransceiverServerL0Socket::ReceiveEvent(event);
}

bool ZrTransceiverServerL1DirectSocket::HandOut(const ConnectionPointer& connection,
                                                ZrMessageHandler& client) {
  auto head = zr::MakeJob<ZrXHeader>(ZrMessageType::kPost, ProtocolKind());
  head->kind = Persistent() ? ZrMessageKind::kRequest : ZrMessageKind::kResponse;
  head->body = std::make_unique<ZrStringBuf>();
  connection->TakeReceived(*head->body);
  head->route = {connection->JobName(), JobName()};
  head->ends =
      std::make_shared<const ZrMessageEnds>(ZrMessageEnds{connection, weak_from_this(), &client});
  head->SetPeerRecord(connection->PeerRecord());
  if (head->body->Empty()) return false;
  client.HandleMessage(HeadName(), head);
  return true;
}

void ZrTransceiverServerL1DirectSocket::EndConnection(ZrTransceiver& transceiver,
                                                      const AskedPointer& asked,
                                                      ZrMessageHandler* client) {
  if (!exchange_.End(asked)) return;
  bool handedOut = false;
  try {
    handedOut = client != nullptr && HandOut(asked->connection, *client);
  } catch (...) {
    handedOut = true;  // the handler's own failure; the exchange is over all the same
  }
  if (handedOut) return transceiver.ReleaseServerTask(JobName());
  ReportUnanswered(asked->connection->IsExpired()
                       ? ZrSendFailure{ZrSendFailureKind::kTimedOut, "nothing came"}
                       : ZrSendFailure{ZrSendFailureKind::kClosed, "no answer came", true});
}

// For a worker the bytes that have arrived together are the answer, as nothing tells where it ends.
void ZrTransceiverServerL1DirectSocket::processItem(const std::string& connectionName,
                                                    const std::string& clientName) {
  ZrTransceiver* const transceiver = Transceiver();
  if (transceiver == nullptr) return;
  const auto [connection, client] = transceiver->FindEnds(connectionName, clientName);
  const AskedPointer asked = exchange_.On(connectionName);
  if (!connection) return EndConnection(*transceiver, asked, client.get());
  if (!client || !connection->BeginItem()) return;
  bool handedOut = false;
  try {
    handedOut = connection->HasReceived() && HandOut(connection, *client);
  } catch (...) {
    handedOut = true;
    connection->CloseAfterItem();  // the handler failed: this connection is given up
  }
  switch (connection->EndItem()) {
    case ZrTransceiverConnection::AfterItem::kNothing:
      break;
    case ZrTransceiverConnection::AfterItem::kWake:
      wake(connectionName);
      break;
    case ZrTransceiverConnection::AfterItem::kClose:
      connection->Close();
      break;
  }
  if (handedOut && exchange_.End(asked)) transceiver->ReleaseServerTask(JobName());
}

bool ZrTransceiverServerL1DirectSocket::SendHead(const ConnectionPointer& connection,
                                                 const std::shared_ptr<ZrXHeader>& head) {
  Touch();
  if (!Timing()) {
    LeaveTask(*head);
    return false;
  }
  const bool asks = !Persistent() && head->kind == ZrMessageKind::kRequest;
  ZrTransceiver* const transceiver = Transceiver();
  const bool sends = connection && transceiver != nullptr &&
                     (!asks || exchange_.Begin(std::make_shared<Asked>(Asked{connection})));
  if (sends) Write(*transceiver, *connection, *head);
  LeaveTask(*head);
  if (!sends && asks)
    ReportUnanswered({ZrSendFailureKind::kClosed, "the connection has closed", true});
  if (sends && !Callback()) throw std::bad_function_call();
  return true;
}

void ZrTransceiverServerL1DirectSocket::Write(ZrTransceiver& transceiver,
                                              ZrTransceiverConnection& connection,
                                              ZrXHeader& head) noexcept {
  try {
    connection.Attach(head.target);
    ZrServerCallback_t record;
    record.kind = ZrServerCallback_t::kBytesSent;
    record.info.Set("ID", JobName());
    head.FillAccessFields(record.info);
    // A request may have to be sent again.
    auto body = std::make_unique<ZrStringBuf>();
    if (Persistent() || head.kind != ZrMessageKind::kRequest)
      body = head.TakeBody();
    else if (head.body)
      body->Append(head.body->Unread());
    record.info.Set("bytes", std::to_string(body->Size()));
    {
      // Bodies of one server go out one after the other.
      ZrLock hold(lock_);
      connection.SendBuffer(body);
      transceiver.FlushConnection(connection);
    }
    if (Callback()) TellOwner(record);
  } catch (...) {
    // Memory ran out. A part of the body may have gone: nothing may follow it; and where an answer
    // was asked for, the connection's end tells the pool.
    transceiver.RemoveConnection(connection);
  }
}
