#include "servers/https_server.h"

#include <utility>

#include "http/server_head.h"

namespace {

// Nobody is verified unless the head says by whom: the machine's store, or a file.
ZrTlsTrust TrustOf(const std::shared_ptr<ZrXHeader>& target) {
  if (!target || !target->connectOptions.Has("cacertificate")) return {};
  std::string file = target->connectOptions.Get("cacertificate");
  if (file.empty()) return {ZrTlsTrust::Kind::kSystemStore, {}};
  return {ZrTlsTrust::Kind::kFile, std::move(file)};
}

}  // namespace

ZrTransceiverServerL1HTTPS::ZrTransceiverServerL1HTTPS(
    ZrRinvalScheduler2& scheduler, std::shared_ptr<ZrXServerHeader> configuration,
    ZrTransceiver& transceiver, std::string clientName, std::string headName, std::string ownerName,
    ZrServerCallback callback, std::string type)
    : ZrTransceiverServerL1HTTP(scheduler, configuration, transceiver, std::move(clientName),
                                std::move(headName), std::move(ownerName), std::move(callback),
                                std::move(type)),
      ZrTransceiverServerL1_SSLAddon(*configuration) {
  protocolKind_ = zr::kProtocolHttps;
}

ZrTransceiverServerL1HTTPS::ZrTransceiverServerL1HTTPS(ZrRinvalScheduler2& scheduler,
                                                       ZrTransceiver& transceiver,
                                                       std::string clientName, std::string headName,
                                                       std::shared_ptr<ZrXHeader> target,
                                                       std::string ownerName,
                                                       ZrServerCallback callback, std::string type)
    : ZrTransceiverServerL1HTTP(scheduler, transceiver, std::move(clientName), std::move(headName),
                                target, std::move(ownerName), std::move(callback), std::move(type)),
      ZrTransceiverServerL1_SSLAddon(ClientForm{TrustOf(target)}) {
  protocolKind_ = zr::kProtocolHttps;
  if (!target) return;
  ExpectPeer(
      {.name = zr::BareHost(target->host), .cancelled = [this] { return IsStartCancelled(); }});
}

std::shared_ptr<ZrTransceiverConnection> ZrTransceiverServerL1HTTPS::createConnection(
    ZrTransceiver& transceiver, const std::string& serverName, ZrServerCallback_t record,
    const std::shared_ptr<ZrSocketIPvx>& socket) {
  return CreateConnection(transceiver, serverName, PeerName(), record, socket);
}
