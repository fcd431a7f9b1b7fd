// Asks an http server for a page:  outgoing HOST PORT PATH
// The page goes to standard output; without an answer the reason goes to standard error.

#include <future>
#include <iostream>
#include <memory>
#include <string>

#include "handlers/request_handler.h"
#include "http/message_head.h"
#include "jobs/scheduler.h"
#include "servers/protocol_servers.h"
#include "servers/request_pool.h"
#include "transceiver/transceiver.h"

namespace {

/// Takes the answer to the one request that it sends.
class Asker final : public ZrTransceiverClient {
 public:
  Asker() : ZrTransceiverClient([](ZrServerCallback_t&) { return true; }, {}, nullptr, nullptr) {}

  bool AcceptHttpAnswer(const std::string& name,
                        const std::shared_ptr<ZrXHeader>& answer) override {
    answer_.set_value(answer);
    return ZrTransceiverClient::AcceptHttpAnswer(name, answer);
  }
  void MessageFailed(const std::string&, const ZrSendFailure& failure) override {
    std::cerr << zr::SendFailureReason(failure.kind) << ": " << failure.detail << "\n";
    answer_.set_value(nullptr);
  }
  /// Waits; empty when there is none.
  std::shared_ptr<ZrXHeader> Answer() { return answer_.get_future().get(); }

 private:
  std::promise<std::shared_ptr<ZrXHeader>> answer_;
};

}  // namespace

int main(int count, char** arguments) try {
  if (count != 4) return std::cerr << "usage: outgoing HOST PORT PATH\n", 2;
  auto head = zr::MakeJob<ZrXHeader>(ZrMessageType::kGet, zr::kProtocolHttp);
  head->host = arguments[1];
  head->port = std::stoul(arguments[2]);
  head->path = arguments[3];
  head->connectOptions.Set("quiet", "yes");
  head->SetState(zr::kHeadStateComplete);

  ZrRinvalScheduler2 scheduler;
  ZrTransceiver transceiver(scheduler, zr::ProtocolServers(zr::OutgoingPools()));
  const auto asker = zr::MakeJob<Asker>();
  transceiver.AddClient(asker);
  asker->SendMessage(head);
  const auto answer = asker->Answer();
  transceiver.StopServers();
  transceiver.RemoveClient(asker);
  if (!answer) return 1;
  std::cout << answer->body->Unread() << std::flush;
  return answer->status < 400 ? 0 : 1;
} catch (const std::exception& failure) {
  std::cerr << failure.what() << "\n";
  return 1;
}
