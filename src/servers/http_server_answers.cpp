// The worker's side of the HTTP family: one request at a time is out, and what arrives is its
// answer. All reading happens on the queue task; the end of the connection comes there as well,
// behind the bytes, so that nothing that arrived is overlooked. Every request that was taken ends
// in exactly one event to the pool: it was answered, or it was not.

#include <utility>

#include "http/message_head.h"
#include "servers/head_output.h"
#include "servers/http_server.h"
#include "transceiver/message_handler.h"
#include "transceiver/transceiver.h"

// Of the failures only those come back that nobody else tells the pool.
ZrSendFailure ZrTransceiverServerL1HTTP::SendRequest(ZrTransceiver* transceiver,
                                                     const ConnectionPointer& connection,
                                                     ZrXHeader& head) {
  ZrSendFailure closed{ZrSendFailureKind::kClosed, "the connection has closed", true};
  if (!connection || transceiver == nullptr) return closed;
  connection->Attach(head.target);
  const auto asked = std::make_shared<Asked>(connection);
  asked->semantics = head.semantics;
  if (head.method == ZrMethod::kHead) asked->reader.ExpectNoBody();
  if (!exchange_.Begin(asked)) return closed;
  try {
    ZrStringBuf out;
    const std::uint64_t bytes = zr::WriteMessage(*connection, head, out);
    if (bytes == 0) {
      if (!exchange_.End(asked)) return {};
      return {ZrSendFailureKind::kNotSent, "the request is not complete: set its state to 6"};
    }
    transceiver->FlushConnection(*connection, out);
    Log(*connection, head, bytes);
  } catch (...) {
    transceiver->RemoveConnection(*connection);  // memory ran out; the end tells the pool
  }
  return {};
}

void ZrTransceiverServerL1HTTP::ProcessAnswer(ZrTransceiver& transceiver,
                                              const std::string& connectionName,
                                              const ConnectionPointer& connection,
                                              const HandlerPointer& client) {
  const std::shared_ptr<Asked> asked = exchange_.On(connectionName);
  if (connection && !connection->BeginItem()) return;
  if (!asked) {
    // Nobody asked for anything: what comes next could not be trusted either.
    if (!connection) return;
    if (connection->HasReceived()) {
      connection->Reset();  // what was paused on is gone: the peer's end is seen behind the rest
      connection->CloseAfterItem();
    }
    return EndTurn(connection);
  }
  asked->connection->TakeReceived(asked->input);
  asked->arrived = asked->arrived || !asked->input.Empty();
  auto result = ZrAnswerReader::Result::kUnreadable;
  try {
    result = ReadAnswer(*asked, connection != nullptr, client);
  } catch (...) {
    // Memory ran out: this exchange is given up.
  }
  // A head has its time limit, from its first byte to its last.
  if (result == ZrAnswerReader::Result::kIncomplete && asked->reader.InHead(*asked->answer))
    asked->connection->Limits().BeginHead(semantics_);
  else
    asked->connection->Limits().EndHead();
  switch (result) {
    case ZrAnswerReader::Result::kIncomplete:
    case ZrAnswerReader::Result::kInterim:
      return EndTurn(connection);
    case ZrAnswerReader::Result::kComplete:
      return HandOutAnswer(transceiver, asked, connection, client);
    case ZrAnswerReader::Result::kUnreadable:
      return FailExchange(asked, connection);
  }
}

ZrAnswerReader::Result ZrTransceiverServerL1HTTP::ReadAnswer(Asked& asked, bool open,
                                                             const HandlerPointer& client) {
  using Result = ZrAnswerReader::Result;
  using Line = ZrAnswerReader::Line;
  const Line line = open                               ? Line::kOpen
                    : asked.connection->PeerFinished() ? Line::kEnded
                                                       : Line::kBroken;
  for (;;) {
    if (!asked.answer) {
      asked.answer = NewAnswer(*asked.connection);
      asked.answer->semantics = asked.semantics;
    }
    const Result result = asked.reader.Read(
        *asked.answer, asked.input, line,
        [&client](ZrXHeader& head) { return client && client->OnHeadComplete(head); });
    if (result != Result::kInterim) return result;
    asked.answer = nullptr;
  }
}

void ZrTransceiverServerL1HTTP::HandOutAnswer(ZrTransceiver& transceiver,
                                              const std::shared_ptr<Asked>& asked,
                                              const ConnectionPointer& connection,
                                              const HandlerPointer& client) {
  if (!exchange_.End(asked)) return;
  bool taken = false;
  try {
    taken = client && client->HandleMessage(SharedHeadName(), asked->answer) != 0;
  } catch (...) {
    // The handler's own failure; the exchange is over all the same.
  }
  if (connection) {
    // A connection on which more has come than was asked for, or that still sends a request whose
    // answer is there, is not used again. The rest of that request is dropped before: a peer that
    // has answered early may never read it.
    const bool useless = !taken || !asked->reader.KeepsConnection() || !asked->input.Empty() ||
                         connection->HasReceived() || connection->SendPending();
    connection->Reset();
    if (useless) connection->Close();
    EndTurn(connection);
  }
  transceiver.ReleaseServerTask(JobName());
}

void ZrTransceiverServerL1HTTP::FailExchange(const std::shared_ptr<Asked>& asked,
                                             const ConnectionPointer& connection) {
  if (!exchange_.End(asked)) return;
  ZrSendFailure failure{ZrSendFailureKind::kUnreadable, asked->reader.Problem()};
  if (!connection && asked->connection->IsExpired())
    failure = {ZrSendFailureKind::kTimedOut, "nothing more came"};
  else if (!connection && !asked->arrived)
    failure = {ZrSendFailureKind::kClosed, "no answer came", true};
  if (connection) {
    connection->Reset();
    connection->Close();
    EndTurn(connection);
  }
  ReportUnanswered(failure);
}
