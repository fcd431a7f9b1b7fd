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
  ZrTransceiverServerL1HTTPS(ZrServerSetup setup, std::shared_ptr<ZrXServerHeader> configuration);
  /// Connecting, with the client form of TLS. Throws as the add-on does.
  ZrTransceiverServerL1HTTPS(ZrServerSetup setup, std::shared_ptr<ZrXHeader> target);

  /// A listening server whose files could not be used stays away from its port.
  bool start() override;
  std::shared_ptr<ZrTransceiverConnection> createConnection(
      ZrTransceiver& transceiver, const std::string& serverName, ZrServerCallback_t record,
      const std::shared_ptr<ZrSocketIPvx>& socket) override;
};
