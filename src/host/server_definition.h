#pragma once
// One server that an application is to run.

#include <cstdint>
#include <memory>
#include <string>

#include "base/option_map.h"

class ZrTransceiverClient;

/// An entry of an application's server list.
struct ZrServerDefinition {
  std::string address;    ///< reported back when the server listens; every local address is bound
  std::int32_t port = 0;  ///< 0 lets the system choose
  std::int32_t protocolKind = 0;  ///< a number of http/protocol_kind.h
  /// https: "cacertificate" and "privatekey", names of PEM files; http and https: "semantics",
  /// "minimal" (also without) or "standard", and "compression", "no" for none. Any: "quiet", a port
  /// that cannot be listened on is reported, but not on standard error.
  ZrOptionMap options = {};
  std::shared_ptr<ZrTransceiverClient> client = nullptr;  ///< filled by startServers()
};
