#pragma once
// The tables through which the transceiver makes servers without knowing their classes. The layer
// that owns the classes fills them; the host plugs them in.

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "base/server_callback.h"
#include "transceiver/fwd.h"

class ZrRinvalScheduler2;
class ZrTransceiverServerL0;

/// What every server is made with. Scheduler and transceiver outlive the server; the names are job
/// names.
struct ZrServerSetup {
  ZrRinvalScheduler2& scheduler;
  ZrTransceiver& transceiver;
  std::string clientName;     ///< The handler that messages go to, or come from.
  std::string headName = {};  ///< The configuration head; of a worker, the head it was made for.
  std::string ownerName;      ///< Who hears of the connections.
  ZrServerCallback callback;
  std::string type = {};  ///< "HTTP", "HTTPS", "QUARN" or "DirectSocket"; empty for a pool.
};

/// Makes a listening server from its configuration head, which the server shares.
using ZrListeningFactory = std::function<std::shared_ptr<ZrServerLink>(
    ZrServerSetup setup, std::shared_ptr<ZrXServerHeader> configuration)>;

/// Makes a connecting server for the target that the head names; the server shares that head. The
/// setup needs no type.
using ZrConnectingFactory = std::function<std::shared_ptr<ZrTransceiverServerL0>(
    ZrServerSetup setup, std::shared_ptr<ZrXHeader> target)>;

/// Makes the pool for one handler and one target.
using ZrOutgoingFactory = std::function<std::shared_ptr<ZrOutgoingLink>(
    ZrServerSetup setup, const ZrConnectingFactory& workers)>;

/// How servers of one protocol kind are opened.
struct ZrListeningEntry {
  ZrListeningFactory make;
  std::string label;     ///< The server's type.
  std::string protocol;  ///< the "protocol" entry of the record that reports the new server
};

/// All factories, by protocol kind. A kind without an entry is unknown to the transceiver.
struct ZrServerFactories {
  std::map<std::uint32_t, ZrListeningEntry> listening;
  std::map<std::uint32_t, ZrConnectingFactory> connecting;
  ZrOutgoingFactory outgoing;  ///< empty: no requests can be sent
};
