#pragma once
// Who a peer is, for the filter that decides whether it is let in.

#include <string>

/// A peer's numeric host address and its numeric port.
struct ZrHostInfo_t {
  std::string host;
  std::string port;
};
