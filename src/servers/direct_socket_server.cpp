#include "servers/direct_socket_server.h"

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

ZrTransceiverServerL1DirectSocket::ConnectionPointer ZrTransceiverServerL1DirectSocket::TakeAsked(
    const std::string& connectionName) {
  ZrLock hold(askedLock_);
  if (!asked_ || asked_->JobName() != connectionName) return nullptr;
  return std::exchange(asked_, nullptr);
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
                                                      const std::string& connectionName,
                                                      ZrMessageHandler* client) {
  const ConnectionPointer asked = TakeAsked(connectionName);
  if (!asked) return;
  bool handedOut = false;
  try {
    handedOut = client != nullptr && HandOut(asked, *client);
  } catch (...) {
    handedOut = true;  // the handler's own failure; the exchange is over all the same
  }
  if (handedOut) return transceiver.ReleaseServerTask(JobName());
  ReportUnanswered(asked->IsExpired()
                       ? ZrSendFailure{ZrSendFailureKind::kTimedOut, "nothing came"}
                       : ZrSendFailure{ZrSendFailureKind::kClosed, "no answer came", true});
}

// For a worker the bytes that have arrived together are the answer, as nothing tells where it ends.
void ZrTransceiverServerL1DirectSocket::processItem(const std::string& connectionName,
                                                    const std::string& clientName) {
  ZrTransceiver* const transceiver = Transceiver();
  if (transceiver == nullptr) return;
  const auto [connection, client] = transceiver->FindEnds(connectionName, clientName);
  if (!connection) return EndConnection(*transceiver, connectionName, client.get());
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
  if (handedOut && TakeAsked(connectionName)) transceiver->ReleaseServerTask(JobName());
}

bool ZrTransceiverServerL1DirectSocket::SendHead(const ConnectionPointer& to,
                                                 const std::shared_ptr<ZrXHeader>& head) {
  Touch();
  if (!Timing()) {
    LeaveJoinedTask(head->target);
    return false;
  }
  const bool asks = !Persistent() && head->kind == ZrMessageKind::kRequest;
  ZrTransceiver* const transceiver = Transceiver();
  ConnectionPointer connection = transceiver != nullptr ? to : nullptr;
  if (connection && asks) {
    connection->ExpectAnswers();
    {
      ZrLock hold(askedLock_);
      asked_ = connection;
    }
    // From here on the end of the connection finds the request. One that came before did not.
    if (!connection->IsListed() && TakeAsked(connection->JobName())) connection = nullptr;
  }
  if (connection) {
    connection->Attach(head->target);
    ZrServerCallback_t record;
    record.kind = ZrServerCallback_t::kBytesSent;
    record.info.Set("ID", JobName());
    head->FillAccessFields(record.info);
    // A request may have to be sent again.
    auto body = std::make_unique<ZrStringBuf>();
    if (!asks)
      body = head->TakeBody();
    else if (head->body)
      body->Append(head->body->Unread());
    record.info.Set("bytes", std::to_string(body->Size()));
    {
      // Bodies of one server go out one after the other.
      ZrLock hold(lock_);
      connection->SendBuffer(body);
      transceiver->FlushConnection(*connection);
    }
    TellOwner(record);
  }
  LeaveJoinedTask(head->target);
  if (!connection && asks)
    ReportUnanswered({ZrSendFailureKind::kClosed, "the connection has closed", true});
  return true;
}
