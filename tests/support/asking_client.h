#pragma once
// A client that sends requests and keeps what became of each, for tests of outgoing requests.

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "handlers/request_handler.h"
#include "http/message_head.h"
#include "jobs/job_registry.h"
#include "jobs/scheduler.h"
#include "servers/protocol_servers.h"
#include "servers/request_pool.h"
#include "tests/support/wait.h"
#include "transceiver/transceiver.h"

namespace zrtest {

/// What became of a request: an answer or a failure.
struct Outcome {
  std::shared_ptr<ZrXHeader> answer;
  ZrSendFailure failure;
  /// The outcome in a line, for comparison.
  std::string Text() const {
    if (!answer) return std::string(zr::SendFailureReason(failure.kind));
    return std::to_string(answer->status) + " " + std::string(answer->body->Unread());
  }
};

class AskingClient : public ZrTransceiverClient {
 public:
  using ZrTransceiverClient::ZrTransceiverClient;

  bool AcceptSocketAnswer(const std::string& name,
                          const std::shared_ptr<ZrXHeader>& answer) override {
    return Keep(name, {answer, {}});
  }
  bool AcceptQuarnAnswer(const std::string& name,
                         const std::shared_ptr<ZrXHeader>& answer) override {
    return Keep(name, {answer, {}});
  }
  bool AcceptHttpAnswer(const std::string& name,
                        const std::shared_ptr<ZrXHeader>& answer) override {
    return Keep(name, {answer, {}}) && ZrTransceiverClient::AcceptHttpAnswer(name, answer);
  }
  void MessageFailed(const std::string& name, const ZrSendFailure& failure) override {
    Keep(name, {nullptr, failure});
  }
  /// What became of one, as text; nothing yet when nothing is known.
  std::optional<std::string> OutcomeOf(const std::string& name) {
    ZrLock hold(outcomeLock_);
    for (const auto& [of, outcome] : outcomes_) {
      if (of == name) return outcome.Text();
    }
    return std::nullopt;
  }
  /// All outcomes so far, in their order.
  std::vector<std::pair<std::string, Outcome>> Outcomes() {
    ZrLock hold(outcomeLock_);
    return outcomes_;
  }

 private:
  bool Keep(const std::string& name, Outcome outcome) {
    ZrLock hold(outcomeLock_);
    try {
      outcomes_.emplace_back(name, std::move(outcome));
    } catch (const std::bad_alloc&) {
      outcomes_.emplace_back(name, std::move(outcome));  // a test has let the first time fail
    }
    return true;
  }
  ZrMutex outcomeLock_;
  std::vector<std::pair<std::string, Outcome>> outcomes_ ZR_GUARDED_BY(outcomeLock_);
};

/// A transceiver with one asking client.
class AskingBed {
 public:
  explicit AskingBed(
      const ZrClock& clock = ZrClock::System(),
      const ZrServerCallback& callback = [](ZrServerCallback_t&) { return true; })
      : transceiver(scheduler, zr::ProtocolServers(zr::OutgoingPools()), clock),
        client(zr::MakeJob<AskingClient>(callback, ZrOptionMap(), nullptr, nullptr)) {
    transceiver.AddClient(client);
  }
  ~AskingBed() { Stop(); }

  void Stop() {
    transceiver.StopServers();
    transceiver.RemoveClient(client);
  }

  /// A GET for that path on 127.0.0.1, or a POST when there is a body.
  static std::shared_ptr<ZrXHeader> Request(int port, std::string_view path = "/",
                                            std::string_view body = {},
                                            std::uint32_t kind = zr::kProtocolHttp) {
    auto head =
        zr::MakeJob<ZrXHeader>(body.empty() ? ZrMessageType::kGet : ZrMessageType::kPost, kind);
    head->kind = ZrMessageKind::kRequest;
    head->host = "127.0.0.1";
    head->port = static_cast<std::uint64_t>(port);
    head->path = path;
    head->connectOptions.Set("quiet", "yes");
    if (!body.empty()) {
      head->boundary = "x";
      head->body = std::make_unique<ZrStringBuf>(std::string(body));
    }
    head->SetState(zr::kHeadStateComplete);
    return head;
  }
  /// Sends and waits for the end.
  std::string Ask(const std::shared_ptr<ZrXHeader>& head) {
    client->SendMessage(head);
    return EndOf(head);
  }
  /// Waits for the outcome, as text, and for the end of the exchange: a worker whose connection
  /// lives is idle then.
  std::string EndOf(const std::shared_ptr<ZrXHeader>& head) {
    const std::string outcome = OutcomeOf(head->JobName());
    const bool ended =
        WaitFor([&] { return !ZrJobRegistry::Instance().TaskText(head->AttachedTask()); });
    return ended ? outcome : "an exchange without end";
  }
  std::string OutcomeOf(const std::string& name) {
    WaitFor([&] { return client->OutcomeOf(name).has_value(); });
    return client->OutcomeOf(name).value_or("nothing");
  }

  ZrRinvalScheduler2 scheduler;
  ZrTransceiver transceiver;
  std::shared_ptr<AskingClient> client;
};

}  // namespace zrtest
