#include "servers/https_server.h"

#include <chrono>
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
    ZrServerSetup setup, std::shared_ptr<ZrXServerHeader> configuration)
    : ZrTransceiverServerL1HTTP(std::move(setup), configuration),
      ZrTransceiverServerL1_SSLAddon(*configuration) {
  protocolKind_ = zr::kProtocolHttps;
}

ZrTransceiverServerL1HTTPS::ZrTransceiverServerL1HTTPS(ZrServerSetup setup,
                                                       std::shared_ptr<ZrXHeader> target)
    : ZrTransceiverServerL1HTTP(std::move(setup), target),
      ZrTransceiverServerL1_SSLAddon(ClientForm{TrustOf(target)}) {
  protocolKind_ = zr::kProtocolHttps;
  if (!target) return;
  ExpectPeer(
      {.name = zr::BareHost(target->host), .cancelled = [this] { return IsStartCancelled(); }});
}

bool ZrTransceiverServerL1HTTPS::start() {
  return HasContext() && ZrTransceiverServerL1HTTP::start();
}

std::shared_ptr<ZrTransceiverConnection> ZrTransceiverServerL1HTTPS::createConnection(
    ZrTransceiver& transceiver, const std::string& serverName, ZrServerCallback_t record,
    const std::shared_ptr<ZrSocketIPvx>& socket) {
  const auto handshakeEnd = std::chrono::steady_clock::now() + ZrTlsEngine::kHandshakeLimit;
  try {
    return CreateConnection(transceiver, serverName, OwnerName(), record, socket);
  } catch (const ZrException& problem) {
    if (!Persistent() && (IsStartCancelled() || std::chrono::steady_clock::now() >= handshakeEnd))
      throw ZrConnectionFailure(ZrSendFailureKind::kTimedOut, "no answer in the TLS handshake");
    throw ZrConnectionFailure(ZrSendFailureKind::kTls, problem.what());
  }
}
