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

/// Makes a listening server from its configuration head, which the server shares. The names are the
/// handler's, the head's and the connection owner's job names; the last text is the server's label.
using ZrListeningFactory = std::function<std::shared_ptr<ZrServerLink>(
    ZrRinvalScheduler2& scheduler, std::shared_ptr<ZrXServerHeader> configuration,
    ZrTransceiver& transceiver, const std::string& clientName, const std::string& headName,
    const std::string& ownerName, const ZrServerCallback& callback, const std::string& label)>;

/// Makes a connecting server for the target that the head names; the server shares that head. The
/// names are the handler's, the head's and the connection owner's job names.
using ZrConnectingFactory = std::function<std::shared_ptr<ZrTransceiverServerL0>(
    ZrRinvalScheduler2& scheduler, ZrTransceiver& transceiver, const std::string& clientName,
    const std::string& headName, std::shared_ptr<ZrXHeader> target, const std::string& ownerName,
    const ZrServerCallback& callback)>;

/// Makes the pool for one handler and one target; the last name is the connection owner's.
using ZrOutgoingFactory = std::function<std::shared_ptr<ZrOutgoingLink>(
    ZrRinvalScheduler2& scheduler, ZrTransceiver& transceiver, const std::string& clientName,
    const ZrServerCallback& callback, const ZrConnectingFactory& workers,
    const std::string& ownerName)>;

/// How servers of one protocol kind are opened.
struct ZrListeningEntry {
  ZrListeningFactory make;
  std::string label;     ///< "HTTP", "HTTPS", "QUARN", "DirectSocket"
  std::string protocol;  ///< the "protocol" entry of the record that reports the new server
};

/// All factories, by protocol kind. A kind without an entry is unknown to the transceiver.
struct ZrServerFactories {
  std::map<std::uint32_t, ZrListeningEntry> listening;
  std::map<std::uint32_t, ZrConnectingFactory> connecting;
  ZrOutgoingFactory outgoing;  ///< empty: no requests can be sent
};
