#pragma once
// The HTTP server over TLS: its connections come from the TLS add-on, all else is as without.

#include <memory>
#include <string>

#include "servers/http_server.h"
#include "servers/tls_addon.h"

/// Threads: any. Made with zr::MakeServer().
class ZrTransceiverServerL1HTTPS : public ZrTransceiverServerL1HTTP,
                                   public ZrTransceiverServerL1_SSLAddon {
 public:
  /// Listening: loads certificate and key of the configuration's options "cacertificate" and
  /// "privatekey" at once; throws ZrException_SSL as the add-on does.
  ZrTransceiverServerL1HTTPS(ZrRinvalScheduler2& scheduler,
                             std::shared_ptr<ZrXServerHeader> configuration,
                             ZrTransceiver& transceiver, std::string clientName,
                             std::string headName, std::string ownerName, ZrServerCallback callback,
                             std::string type);
  /// Connecting, with the client form of TLS. Throws as the add-on does.
  ZrTransceiverServerL1HTTPS(ZrRinvalScheduler2& scheduler, ZrTransceiver& transceiver,
                             std::string clientName, std::string headName,
                             std::shared_ptr<ZrXHeader> target, std::string ownerName,
                             ZrServerCallback callback, std::string type);

  std::shared_ptr<ZrTransceiverConnection> createConnection(
      ZrTransceiver& transceiver, const std::string& serverName, ZrServerCallback_t record,
      const std::shared_ptr<ZrSocketIPvx>& socket) override;
};
