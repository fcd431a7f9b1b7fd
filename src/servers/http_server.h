#pragma once
// The server of the HTTP family: it assembles the messages that arrive on its connections, hands
// each complete one to its handler, and sends heads with their bodies, one access-log line each.
// One message of a connection is in progress at a time; what arrives behind it waits in the
// connection until the answer is on its way. As a worker it is the other side: it sends a request
// and takes what comes as its answer (http_server_answers.cpp).

#include <atomic>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <unordered_map>
#include <utility>

#include "http/access_log.h"
#include "http/answer_reader.h"
#include "http/protocol_kind.h"
#include "http/semantics.h"
#include "servers/tcp_server.h"
#include "servers/worker_exchange.h"
#include "transceiver/connection.h"

/// Threads: any. Made with zr::MakeServer().
class ZrTransceiverServerL1HTTP : public ZrTransceiverServerL0Socket {
 public:
  /// Listening or connecting, with the arguments of the base. The option "semantics" of the
  /// configuration head names the rules of its messages, "logformat" the form of its lines; throws
  /// ZrException for an unknown name.
  template <class... Args>
  explicit ZrTransceiverServerL1HTTP(Args&&... args)
      : ZrTransceiverServerL0Socket(std::forward<Args>(args)...) {
    protocolKind_ = zr::kProtocolHttp;
    semantics_ = &ZrSemantics::Named(Option("semantics"));
    logFormat_ = zr::AccessLogFormatNamed(Option("logformat"));
  }

  bool ReceiveEvent(const ZrJobEvent& event) override ZR_REQUIRES(lock_);
  void wake(const std::string& connectionName) override;
  /// Takes the bytes of the connection into its message and hands that out when it is complete.
  void processItem(const std::string& connectionName, const std::string& clientName) override;
  using ZrTransceiverServer::SendHead;
  bool SendHead(const std::shared_ptr<ZrTransceiverConnection>& connection,
                const std::shared_ptr<ZrXHeader>& head) override;
  void EndAnswer(const std::shared_ptr<ZrTransceiverConnection>& connection,
                 const std::shared_ptr<ZrXHeader>& head, std::uint64_t bytes, Ended ended) override;
  void EndTasks() override;
  /// Handles those messages whose handler says that they cannot wait.
  void HandleArrived(
      ZrReceivePass& pass,
      std::span<const std::shared_ptr<ZrTransceiverConnection>> connections) override;

 protected:
  /// In standard semantics an IPv4 peer of a socket for both families is named by its IPv4 address.
  std::string PeerText(std::string numericName) const override;

  const ZrSemantics* semantics_;  // constant after construction

 private:
  using ConnectionPointer = std::shared_ptr<ZrTransceiverConnection>;
  using HandlerPointer = std::shared_ptr<ZrMessageHandler>;

  // What belongs to one connection.
  struct Exchange {
    std::shared_ptr<ZrXHeader> head;  // the message being assembled; none between messages
    bool atWork = false;              // a thread reads it or hands it out
    bool bodyUnderWay = false;        // its head is there, its body is not
    bool complete = false;            // it has arrived, and its turn has begun
    std::string task;                 // the joined task made for its messages; empty: none was made
    std::shared_ptr<const ZrMessageEnds> ends;  // what its messages carry
  };

  // A worker's request that is out.
  struct Asked {
    explicit Asked(ConnectionPointer on) : connection(std::move(on)) {}
    const ConnectionPointer connection;
    const ZrSemantics* semantics = nullptr;  // of the request, and so of its answer
    // The queue task's alone.
    ZrAnswerReader reader;
    ZrStringBuf input;  // received and not yet read
    std::shared_ptr<ZrXHeader> answer;
    bool arrived = false;  // anything came at all
  };

  std::shared_ptr<ZrXHeader> NewMessage(const ZrTransceiverConnection& connection,
                                        std::string task);
  /// Reads what has arrived on a worker; without connection, its end has come.
  void ProcessAnswer(ZrTransceiver& transceiver, const std::string& connectionName,
                     const ConnectionPointer& connection, const HandlerPointer& client);
  ZrAnswerReader::Result ReadAnswer(Asked& asked, bool open, const HandlerPointer& client);
  void HandOutAnswer(ZrTransceiver& transceiver, const std::shared_ptr<Asked>& asked,
                     const ConnectionPointer& connection, const HandlerPointer& client);
  void FailExchange(const std::shared_ptr<Asked>& asked, const ConnectionPointer& connection);
  ZrSendFailure SendRequest(ZrTransceiver* transceiver, const ConnectionPointer& connection,
                            ZrXHeader& head);

  std::shared_ptr<ZrXHeader> MessageOf(const ConnectionPointer& connection,
                                       const HandlerPointer& client);
  bool IsAtWork(const std::string& connectionName);
  void Rest(const std::string& connectionName, bool bodyUnderWay);
  void DropMessage(const std::string& connectionName);
  /// More came of a message whose answer was given.
  void ReadOff(const ConnectionPointer& connection, ZrXHeader& head, ZrReadStep step);
  /// The answer was given: what has not come yet of the request's body is read off.
  void CutBody(const ZrTransceiverConnection& connection, ZrXHeader& answer);
  /// Takes a complete message off, which is handed out then. Its answer ends the turn, and the next
  /// message may be read by another thread before the handler has returned.
  void LetGo(const std::string& connectionName);
  /// The handler has returned; there may be a new message by now, on which others work.
  void EndWorkOn(const std::string& connectionName);
  void ForgetConnection(const std::string& connectionName, const HandlerPointer& client);
  /// Reads what has arrived in the connection's turn; the message when that is complete.
  std::shared_ptr<ZrXHeader> Assemble(ZrTransceiver& transceiver,
                                      const ConnectionPointer& connection,
                                      const HandlerPointer& client);
  /// The complete message of a turn that has begun, for the queue task.
  std::shared_ptr<ZrXHeader> TakeComplete(const std::string& connectionName);
  bool HasBodyUnderWay(const std::string& connectionName);
  void LeaveToQueue(const ConnectionPointer& connection);
  void HandleHere(ZrTransceiver& transceiver, const ConnectionPointer& connection,
                  const HandlerPointer& client);
  /// Runs one turn: assembles when there is no message yet, hands out when `here` allows it.
  void RunTurn(ZrTransceiver& transceiver, const ConnectionPointer& connection,
               const HandlerPointer& client, std::shared_ptr<ZrXHeader> complete, bool here);
  /// Answers whether the connection's turn goes on until its answer.
  bool HandOut(ZrTransceiver& transceiver, const ConnectionPointer& connection,
               const HandlerPointer& client, const std::shared_ptr<ZrXHeader>& head);
  void EndTurn(const ConnectionPointer& connection);
  void GoOn(const ConnectionPointer& connection, ZrTransceiverConnection::AfterItem next);
  /// Whatever fails, the caller goes on to end the turn.
  void Write(ZrTransceiver& transceiver, ZrTransceiverConnection& connection,
             ZrXHeader& head) noexcept;
  void Log(const ZrTransceiverConnection& connection, const ZrXHeader& head, std::uint64_t bytes);

  zr::AccessLogFormat logFormat_ = zr::AccessLogFormat::kVelkoro;  // constant after construction

  // While that has not come (monotonic ns), nothing is handled on the receive job: a pass there
  // took too long.
  std::atomic<std::int64_t> queueUntil_{0};

  ZrMutex requestLock_;
  std::unordered_map<std::string, Exchange> exchanges_ ZR_GUARDED_BY(requestLock_);
  ZrWorkerExchange<Asked> exchange_;  // workers only
};
