#pragma once
// The table of all protocol servers by protocol kind, for the transceiver of an application.

#include "transceiver/server_factories.h"

namespace zr {

/// Factories of every protocol server. The one that makes the pools of outgoing requests is given
/// by the caller; without it no requests can be sent.
ZrServerFactories ProtocolServers(ZrOutgoingFactory outgoing = {});

}  // namespace zr
