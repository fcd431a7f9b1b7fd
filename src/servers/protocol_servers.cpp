#include "servers/protocol_servers.h"

#include <utility>

#include "http/protocol_kind.h"
#include "http/server_head.h"
#include "servers/direct_socket_server.h"
#include "servers/http_server.h"
#include "servers/https_server.h"
#include "servers/quarn_server.h"

namespace {

template <class Server>
ZrListeningEntry Listening(std::string label, std::string protocol) {
  const auto make =
      [](ZrServerSetup setup,
         std::shared_ptr<ZrXServerHeader> configuration) -> std::shared_ptr<ZrServerLink> {
    return zr::MakeServer<Server>(std::move(setup), std::move(configuration));
  };
  return {make, std::move(label), std::move(protocol)};
}

template <class Server>
ZrConnectingFactory Connecting(std::string type) {
  return [type = std::move(type)](
             ZrServerSetup setup,
             std::shared_ptr<ZrXHeader> target) -> std::shared_ptr<ZrTransceiverServerL0> {
    setup.type = type;
    return zr::MakeServer<Server>(std::move(setup), std::move(target));
  };
}

}  // namespace

// "quarns" has no server of its own: it is served without TLS by that of "quarn".
ZrServerFactories zr::ProtocolServers(ZrOutgoingFactory outgoing) {
  ZrServerFactories factories;
  factories.listening[kProtocolHttp] = Listening<ZrTransceiverServerL1HTTP>("HTTP", "HTTP/HTTPS");
  factories.listening[kProtocolHttps] =
      Listening<ZrTransceiverServerL1HTTPS>("HTTPS", "HTTP/HTTPS");
  factories.listening[kProtocolQuarn] =
      Listening<ZrTransceiverServerL1QUARN>("QUARN", "QUARN/QUARNS");
  factories.listening[kProtocolQuarns] = factories.listening[kProtocolQuarn];
  factories.listening[kProtocolSocket] =
      Listening<ZrTransceiverServerL1DirectSocket>("DirectSocket", "DirectSocket");
  factories.connecting[kProtocolHttp] = Connecting<ZrTransceiverServerL1HTTP>("HTTP");
  factories.connecting[kProtocolHttps] = Connecting<ZrTransceiverServerL1HTTPS>("HTTPS");
  factories.connecting[kProtocolQuarn] = Connecting<ZrTransceiverServerL1QUARN>("QUARN");
  factories.connecting[kProtocolSocket] =
      Connecting<ZrTransceiverServerL1DirectSocket>("DirectSocket");
  factories.outgoing = std::move(outgoing);
  return factories;
}
