#include "net/tcp_socket.h"

#include <algorithm>
#include <span>
#include <string_view>

#include "base/line_writer.h"
#include "base/trace.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

template <std::size_t Capacity>
void Keep(std::array<char, Capacity>& target, std::string_view text) {
  const std::size_t length = std::min(text.size(), Capacity - 1);
  std::copy_n(text.data(), length, target.data());
  target[length] = '\0';
}

// Learns the port that the system chose; a listener whose port nobody knows is of no use.
bool FindPort(const ZrDescriptor& listener, int& port) {
  if (port != 0) return true;
  const int chosen = zr::LocalPort(listener.Get());
  if (chosen > 0) port = chosen;
  return chosen > 0;
}

}  // namespace

ZrSocketIPvx::ZrSocketIPvx(int /*unused*/) {}

ZrSocketIPvx::ZrSocketIPvx(ZrByteLine& line) : closed_(false), line_(&line) {}

ZrSocketIPvx::~ZrSocketIPvx() {
  for (const ZrDescriptor* socket : {&primary_, &secondary_})
    if (socket->IsOpen()) zr::ShutdownBoth(socket->Get());
}

void ZrSocketIPvx::Complain(const std::string& line) const {
  if (!quiet_) zr::WriteDiagnostic("error of a connection", line);
}

ZrSocketResult ZrSocketIPvx::send(const char* buffer, std::size_t length, std::size_t& sent) {
  if (line_ == &ownLine_ && !primary_.IsOpen()) {
    zr::WriteDiagnostic("no socket", "no socket");
    return ZrSocketResult::kSuccess;
  }
  const ZrIoResult result = line_->Send({buffer, length});
  sent = result.count;
  return result.status == ZrIoStatus::kDone && sent == length ? ZrSocketResult::kSuccess
                                                              : ZrSocketResult::kSendIncomplete;
}

ZrSocketResult ZrSocketIPvx::receive(char* buffer, std::size_t capacity, std::size_t& received) {
  const ZrIoResult result = line_->Receive({buffer, capacity});
  received = result.count;
  wouldBlock_ = result.status == ZrIoStatus::kWouldBlock;
  if (result.status == ZrIoStatus::kClosed && result.error == 0) closed_ = true;
  if (result.error != 0 && !wouldBlock_) {
    closed_ = false;
    lastError_ = result.error;
    Complain("ZrSocketIPvx::Receive(): error in read (errno=" + std::to_string(result.error) +
             ") " + zr::SystemErrorText(result.error));
  }
  return ZrSocketResult::kSuccess;
}

ZrSocketResult ZrSocketIPvx::receiveIfReady(char* buffer, std::size_t capacity,
                                            std::size_t& received) {
  received = 0;
  if (!waitReadable(1, primary_.Get()) || !ready_) return ZrSocketResult::kSuccess;
  return receive(buffer, capacity, received);
}

std::string ZrSocketIPvx::peerAddress() const { return peerHost_.data(); }

std::string ZrSocketIPvx::peerPort() const { return peerService_.data(); }

bool ZrSocketIPvx::waitReadable(int timeoutMillis, int descriptor) {
  ready_ = zr::WaitReadable(descriptor, milliseconds(timeoutMillis)) != ZrWaitStatus::kTimeout;
  return ready_;
}

ZrDescriptor ZrSocketIPvx::openFirst(ZrAddressFamily family, const ZrResolution& resolution,
                                     int backlog, int& port) {
  for (const ZrSocketAddress& address : resolution.addresses) {
    if (address.family != family) continue;
    ZrDescriptor socket = zr::OpenListener(address, backlog);
    if (!socket.IsOpen() || !FindPort(socket, port)) continue;
    port_ = port;
    ZrTrace::Instance().Line(ZrTrace::kSockets, "bound at port number " + std::to_string(port));
    return socket;
  }
  return {};
}

ZrSocketResult ZrSocketIPvx::listen(const std::string& /*address*/, int& port, int backlog) {
  const ZrResolution resolution = zr::ResolveListener(port);
  if (!resolution.error.empty()) {
    if (!quiet_) zr::WriteErrorLine("getaddrinfo: " + resolution.error);
    return ZrSocketResult::kListenFailed;
  }
  // The IPv6 socket takes IPv4 peers as well, so with a fixed port the second one finds its port
  // taken by the first and stays away. Where the machine has no IPv6 it serves alone.
  primary_ = openFirst(ZrAddressFamily::kIPv6, resolution, backlog, port);
  secondary_ = openFirst(ZrAddressFamily::kIPv4, resolution, backlog, port);
  listening_ = primary_.IsOpen() || secondary_.IsOpen();
  if (listening_) return ZrSocketResult::kSuccess;
  if (!quiet_) zr::WriteErrorLine("Could not bind");
  return ZrSocketResult::kListenFailed;
}

ZrSocketResult ZrSocketIPvx::listenAt(const std::string& host, int& port, int backlog,
                                      const std::function<bool()>& cancelled) {
  const ZrResolution resolution = zr::ResolveHost(host, port, kConnectLimit, cancelled);
  listenErrorText_ = resolution.error;
  // The system's choice for one family may be taken in the other.
  constexpr int kChoices = 8;
  const int tries = port == 0 ? kChoices : 1;
  for (int made = 0; made < tries && !listening_; ++made) {
    int chosen = port;
    listening_ = openAll(resolution, backlog, chosen);
    if (listening_) port = port_ = chosen;
  }
  return listening_ ? ZrSocketResult::kSuccess : ZrSocketResult::kListenFailed;
}

// The first address of each family, on one port. A family that the machine does not have is left
// out.
bool ZrSocketIPvx::openAll(const ZrResolution& resolution, int backlog, int& port) {
  for (const ZrAddressFamily family : {ZrAddressFamily::kIPv6, ZrAddressFamily::kIPv4}) {
    ZrDescriptor& place = family == ZrAddressFamily::kIPv6 ? primary_ : secondary_;
    place = {};
    const auto address = std::find_if(resolution.addresses.begin(), resolution.addresses.end(),
                                      [family](const auto& one) { return one.family == family; });
    if (address == resolution.addresses.end()) continue;
    int error = 0;
    place = zr::OpenListener(zr::WithPort(*address, port), backlog, &error);
    if (place.IsOpen() && FindPort(place, port)) continue;
    place = {};
    listenErrorText_ = zr::IsAddressMissing(error) ? zr::SystemErrorText(error) : "";
    if (listenErrorText_.empty()) {
      primary_ = {};
      return false;
    }
  }
  return primary_.IsOpen() || secondary_.IsOpen();
}

int ZrSocketIPvx::accept(ZrSocketIPvx& newSocket, int timeoutMillis, const PeerFilter& filter) {
  // Both sockets are waited for at once: a peer of the second need not sit out the first one's
  // wait, and the limit for both is still the sum of the two.
  const std::array<int, 2> listeners = {primary_.Get(), secondary_.Get()};
  const bool both = primary_.IsOpen() && secondary_.IsOpen();
  const milliseconds limit = milliseconds(timeoutMillis) * (both ? 2 : 1);
  lastAccept_ = ZrAcceptStatus::kNoPeer;
  const int first = zr::WaitAnyReadable(listeners, limit);
  ready_ = first >= 0;
  if (!ready_) return -1;
  int descriptor = acceptStep(listeners.at(static_cast<std::size_t>(first)), newSocket, filter);
  // A primary that had no peer after all gives the secondary its turn.
  if (descriptor < 0 && first == 0 && secondary_.IsOpen() &&
      lastAccept_ != ZrAcceptStatus::kExhausted && waitReadable(0, secondary_.Get()))
    descriptor = acceptStep(secondary_.Get(), newSocket, filter);
  return descriptor;
}

int ZrSocketIPvx::acceptStep(int listener, ZrSocketIPvx& newSocket, const PeerFilter& filter) {
  ZrAccepted peer = zr::AcceptPeer(listener);
  lastAccept_ = peer.status;
  if (peer.status != ZrAcceptStatus::kAccepted) return -1;
  ZrNumericName name = zr::NumericName(peer.peer);
  if (name.host.empty()) return -1;
  Keep(newSocket.peerHost_, name.host);
  Keep(newSocket.peerService_, name.service);
  newSocket.accepted_ = true;
  ZrHostInfo_t info{std::move(name.host), std::move(name.service)};
  if (!filter(info)) return -1;
  newSocket.primary_ = std::move(peer.socket);
  newSocket.closed_ = false;
  return newSocket.primary_.Get();
}

ZrSocketResult ZrSocketIPvx::connect(const std::string& host, int port, milliseconds limit,
                                     const std::function<bool()>& cancelled) {
  const auto deadline = steady_clock::now() + limit;
  const ZrResolution resolution = zr::ResolveHost(host, port, limit, cancelled);
  if (!resolution.error.empty()) {
    connectFailure_ = resolution.failure;
    connectErrorText_ = resolution.error;
    Complain("getaddrinfo: " + resolution.error);
    return ZrSocketResult::kConnectFailed;
  }
  int attempted = -1;
  connectFailure_ = ZrConnectFailure::kTimedOut;  // unless an attempt fails in another way
  connectErrorText_ = "no answer";
  std::size_t untried = resolution.addresses.size();
  for (const ZrSocketAddress& address : resolution.addresses) {
    // Each address gets its share of what is left, so that a silent one leaves time for the others.
    const auto left = std::chrono::ceil<milliseconds>(deadline - steady_clock::now());
    if (left <= milliseconds::zero()) break;
    int error = 0;
    primary_ =
        zr::ConnectTo(address, left / static_cast<int>(untried--), &error, &attempted, cancelled);
    if (!primary_.IsOpen()) {
      connectFailure_ = zr::ConnectFailureOf(error);
      connectErrorText_ = zr::SystemErrorText(error);
      if (connectFailure_ == ZrConnectFailure::kCancelled) break;
      continue;
    }
    connectFailure_ = ZrConnectFailure::kNone;
    connectErrorText_.clear();
    closed_ = false;
    return ZrSocketResult::kSuccess;
  }
  Complain("Could not connect, fd: " + std::to_string(attempted));
  return ZrSocketResult::kConnectFailed;
}
