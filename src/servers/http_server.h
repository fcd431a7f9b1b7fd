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
#include "platform/thread.h"
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

  // What belongs to one connection; the connection has it at hand.
  struct Exchange : ZrTransceiverConnection::ServerPart {
    explicit Exchange(std::string_view remoteAddress) : remote(remoteAddress) {}
    ZrMutex lock;                                         // behind requestLock_
    std::shared_ptr<ZrXHeader> head ZR_GUARDED_BY(lock);  // being assembled; else none
    bool atWork ZR_GUARDED_BY(lock) = false;              // a thread reads it or hands it out
    bool complete ZR_GUARDED_BY(lock) = false;            // it has arrived, and its turn has begun
    std::atomic<bool> bodyUnderWay{false};                // its head is there, its body is not
    std::atomic<bool> entered{false};  // in exchanges_; changes under requestLock_
    std::string_view remote;           // the peer's address, in the connection's record; constant
    // What its messages carry; whose turn it is may look and change it.
    std::shared_ptr<const ZrMessageEnds> ends;
    std::string task ZR_GUARDED_BY(lock);  // the joined task made for it; empty: none was made
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

  static Exchange* ExchangeOf(const ZrTransceiverConnection& connection) {
    return static_cast<Exchange*>(connection.KeptByServer());
  }
  std::shared_ptr<ZrXHeader> NewMessage(const ZrTransceiverConnection& connection,
                                        std::shared_ptr<const ZrMessageEnds> ends);
  std::shared_ptr<ZrXHeader> NewAnswer(ZrTransceiverConnection& connection);
  /// Makes what the connection's messages carry, and enters the connection.
  Exchange& EnterConnection(const ConnectionPointer& connection, const HandlerPointer& client);
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
  static void Rest(const ZrTransceiverConnection& connection, bool bodyUnderWay);
  static void DropMessage(const ZrTransceiverConnection& connection);
  /// More came of a message whose answer was given.
  static void ReadOff(const ConnectionPointer& connection, ZrXHeader& head, ZrReadStep step);
  /// The answer was given: what has not come yet of the request's body is read off.
  void CutBody(const ZrTransceiverConnection& connection, ZrXHeader& answer);
  /// Takes a complete message off, which is handed out then. Its answer ends the turn, and the next
  /// message may be read by another thread before the handler has returned.
  static void LetGo(const ZrTransceiverConnection& connection);
  /// The handler has returned; there may be a new message by now, on which others work.
  static void EndWorkOn(const ZrTransceiverConnection& connection);
  void ForgetConnection(const std::string& connectionName, const HandlerPointer& client);
  /// Reads what has arrived in the connection's turn; the message when that is complete.
  std::shared_ptr<ZrXHeader> Assemble(ZrTransceiver& transceiver,
                                      const ConnectionPointer& connection,
                                      const HandlerPointer& client);
  /// The complete message of a turn that has begun, for the queue task.
  static std::shared_ptr<ZrXHeader> TakeComplete(const ZrTransceiverConnection& connection);
  void LeaveToQueue(const ConnectionPointer& connection);
  /// Who handles messages: found once for all of a pass.
  struct Work {
    ZrTransceiver& transceiver;
    const HandlerPointer& client;
    const ZrSharedText headName;
    const bool here;  // on the receive job
  };
  void HandleHere(const Work& work, const ConnectionPointer& connection);
  /// Runs one turn: assembles when there is no message yet, hands out where that may be.
  void RunTurn(const Work& work, const ConnectionPointer& connection,
               std::shared_ptr<ZrXHeader> complete);
  /// Answers whether the connection's turn goes on until its answer.
  bool HandOut(const Work& work, const ConnectionPointer& connection,
               const std::shared_ptr<ZrXHeader>& head);
  void EndTurn(const ConnectionPointer& connection);
  void GoOn(const ConnectionPointer& connection, ZrTransceiverConnection::AfterItem next);
  /// Whatever fails, the caller goes on to end the turn.
  void Write(ZrTransceiver& transceiver, ZrTransceiverConnection& connection,
             ZrXHeader& head) noexcept;
  static std::string_view RemoteOf(const ZrTransceiverConnection& connection);
  void Log(const ZrTransceiverConnection& connection, const ZrXHeader& head, std::uint64_t bytes);
  void Report(ZrServerCallback_t& record, const zr::AccessLogEntry& entry) const;

  zr::AccessLogFormat logFormat_ = zr::AccessLogFormat::kVelkoro;  // constant after construction

  bool TookTooLong(const ZrThreadUse& before, std::size_t messages) const;

  // While that has not come (monotonic ns), nothing is handled on the receive job: a pass there
  // took too long.
  std::atomic<std::int64_t> queueUntil_{0};
  // Until then (monotonic ns) passes are looked at closely, as one was longer than it should be.
  std::atomic<std::int64_t> suspectUntil_{0};

  ZrMutex requestLock_;
  std::unordered_map<std::string, std::shared_ptr<Exchange>> exchanges_ ZR_GUARDED_BY(requestLock_);
  ZrWorkerExchange<Asked> exchange_;  // workers only
};
