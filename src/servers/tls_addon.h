#pragma once
// The TLS side of a server or of an outgoing worker: the context that its connections share, and
// the making of those connections. The HTTPS server carries it as a second base.

#include <cstdint>
#include <memory>
#include <string>

#include "base/server_callback.h"
#include "net/tls_context.h"
#include "transceiver/fwd.h"
#include "transceiver/tls_connection.h"

/// Made and used by the thread that owns the server; CreateConnection by one thread at a time.
class ZrTransceiverServerL1_SSLAddon {
 public:
  /// Chooses the client form.
  struct ClientForm {
    ZrTlsTrust trust;
  };

  /// The server form: loads the files named by the options "cacertificate" and "privatekey" at
  /// once. When that fails and no other TLS add-on was ever built in this process, throws
  /// ZrException_SSL as zr::MakeTlsServerContext() does; otherwise the failure ends here, a line on
  /// standard error says it, and the add-on is complete without a context: its server does not
  /// listen.
  explicit ZrTransceiverServerL1_SSLAddon(const ZrXServerHeader& configuration);
  /// The client form. Throws ZrException_SSL as zr::MakeTlsClientContext() does.
  explicit ZrTransceiverServerL1_SSLAddon(const ClientForm& form);
  ZrTransceiverServerL1_SSLAddon(const ZrTransceiverServerL1_SSLAddon&) = delete;
  ZrTransceiverServerL1_SSLAddon& operator=(const ZrTransceiverServerL1_SSLAddon&) = delete;

  /// Makes the TLS connection of a connected socket; the transceiver closes it when it is asked to.
  /// The server form returns at once, the client form after the handshake. Throws what
  /// ZrTransceiverConnection_SSLAddon's construction throws, for an add-on without a context
  /// ZrException "Error getting SSL context": the caller then lets the socket go.
  virtual std::shared_ptr<ZrTransceiverConnection_SSLAddon> CreateConnection(
      ZrTransceiver& owner, const std::string& receiverName, const std::string& peerName,
      const ZrServerCallback_t& record, std::shared_ptr<ZrSocketIPvx> socket);
  virtual ~ZrTransceiverServerL1_SSLAddon();

  /// Sets whom the connections of the client form expect from now on.
  void ExpectPeer(ZrTlsPeer peer) { peer_ = std::move(peer); }
  /// Answers no for a server form whose files could not be used.
  bool HasContext() const { return context_ != nullptr; }

  /// How many add-ons were built in this process; failed server forms are not counted.
  static std::uint64_t Count();

 private:
  ZrTlsContextPtr context_;
  std::string certificateFile_;
  std::string privateKeyFile_;
  const bool isServer_;
  ZrTlsPeer peer_;
};
