#include "transceiver/receive_pass.h"

#include "transceiver/connection.h"
#include "transceiver/server_link.h"

namespace {

[[gnu::tls_model("initial-exec")]] thread_local ZrReceivePass* current = nullptr;

}  // namespace

ZrReceivePass::ZrReceivePass() noexcept { current = this; }

ZrReceivePass::~ZrReceivePass() { current = nullptr; }

ZrReceivePass* ZrReceivePass::Current() noexcept { return current; }

bool ZrReceivePass::Defer(const ServerPointer& server, const std::string& connectionName) {
  if (!server || !current_ || round_ >= kRounds || current_->JobName() != connectionName)
    return false;
  for (auto& [known, connections] : arrivals_) {
    if (known != server) continue;
    connections.push_back(current_);
    return true;
  }
  arrivals_.emplace_back(server, std::vector<ConnectionPointer>{current_});
  return true;
}

void ZrReceivePass::HandOut(const std::function<void(ZrTransceiverConnection&)>& giveUp) {
  while (!arrivals_.empty()) {
    ++round_;
    const Arrivals arrivals = std::exchange(arrivals_, {});
    for (const auto& [server, connections] : arrivals) {
      try {
        server->HandleArrived(*this, connections);
      } catch (...) {
        // Out of memory, in effect: who has been handled already loses nothing by it but the
        // connection.
        for (const ConnectionPointer& connection : connections) giveUp(*connection);
      }
    }
  }
}
