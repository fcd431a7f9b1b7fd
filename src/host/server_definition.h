#pragma once
// One server that an application is to run.

#include <cstdint>
#include <memory>
#include <string>

#include "base/option_map.h"

class ZrTransceiverClient;
struct ZrSite;

/// An entry of an application's server list.
struct ZrServerDefinition {
  std::string address;            ///< reported back when the server listens; see "bind"
  std::int32_t port = 0;          ///< 0 lets the system choose
  std::int32_t protocolKind = 0;  ///< a number of http/protocol_kind.h
  /// https: "cacertificate" and "privatekey", names of PEM files; http and https: "semantics",
  /// "minimal" (also without) or "standard", "logformat", "velkoro" (also without), "combined" or
  /// "json", and "compression", "no" for none. Any: "bind", "address" to listen at that address
  /// alone, else at every local one; "quiet", a port that cannot be listened on is reported, but
  /// not on standard error; with "peers", what a peer breaks off is not said there either.
  ZrOptionMap options = {};
  /// Standard semantics: what the site has beyond its files; null: what every site has.
  std::shared_ptr<const ZrSite> site = nullptr;
  std::shared_ptr<ZrTransceiverClient> client = nullptr;  ///< filled by startServers()
};
