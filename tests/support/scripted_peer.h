#pragma once
// A server on 127.0.0.1 that does to each connection exactly what the test says: it answers in
// pieces, late, twice, with garbage, or goes away at any point.

#include <atomic>
#include <functional>
#include <string>
#include <thread>

#include "platform/descriptor.h"
#include "tests/support/raw_client.h"

namespace zrtest {

/// One accepted connection, closed with the object.
class PeerConnection : public RawClient {
 public:
  using RawClient::RawClient;
  /// Reads a whole request, head and declared body; empty when the other side ended first.
  std::string ReadRequest();
  /// Reads until at least that many bytes have come in all.
  std::string ReadBytes(std::size_t count);

 private:
  bool ReadMore();
  std::string unread_;
};

class ScriptedPeer {
 public:
  /// Runs the script for each connection on a thread of its own; the number counts them from 0.
  using Script = std::function<void(int number, PeerConnection& connection)>;

  explicit ScriptedPeer(Script script);
  ~ScriptedPeer();
  int Port() const { return port_; }
  /// Connections so far.
  int Count() const { return count_; }

 private:
  const Script script_;
  ZrDescriptor listener_;
  int port_ = 0;
  std::atomic<int> count_{0};
  std::atomic<bool> ended_{false};
  std::thread acceptor_;
};

}  // namespace zrtest
