// Opening, naming and ending sockets. Moving bytes and waiting stands in socket_io.cpp.

#include "platform/socket.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <string.h>
#include <sys/socket.h>

#include <cstddef>

namespace {

static_assert(sizeof(ZrSocketAddress::bytes) >= sizeof(sockaddr_storage));

const sockaddr* Native(const ZrSocketAddress& address) {
  return reinterpret_cast<const sockaddr*>(address.bytes.data());
}

int NativeFamily(const ZrSocketAddress& address) {
  return address.family == ZrAddressFamily::kIPv6 ? AF_INET6 : AF_INET;
}

ZrSocketAddress FromNative(const void* address, socklen_t length, int family) {
  ZrSocketAddress result;
  result.length = length;
  result.family = family == AF_INET6 ? ZrAddressFamily::kIPv6 : ZrAddressFamily::kIPv4;
  ::memcpy(result.bytes.data(), address, length);
  return result;
}

ZrDescriptor OpenSocket(const ZrSocketAddress& address) {
  return ZrDescriptor(
      ::socket(NativeFamily(address), SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, IPPROTO_TCP));
}

bool SetOption(int socket, int level, int option, int value) {
  return ::setsockopt(socket, level, option, &value, sizeof value) == 0;
}

ZrDescriptor Failed(int* error) {
  if (error != nullptr) *error = errno;
  return {};
}

// Peers that vanish between their arrival and accept() are reported by it as errors of theirs, as
// are problems of the road to them; none of them concerns the listening socket.
bool IsPeerError(int error) {
  switch (error) {
    case EAGAIN:
    case ECONNABORTED:
    case EPROTO:
    case ENETDOWN:
    case ENOPROTOOPT:
    case EHOSTDOWN:
    case ENONET:
    case EHOSTUNREACH:
    case ENETUNREACH:
    case ETIMEDOUT:
    case EPERM:
      return true;
    default:
      return false;
  }
}

}  // namespace

namespace zr {

bool IsNumericAddress(const std::string& host) {
  // A zone behind an IPv6 address ("fe80::1%eth0") does not make a name of it.
  const std::string address = host.substr(0, host.find('%'));
  std::array<unsigned char, sizeof(in6_addr)> bytes;
  return ::inet_pton(AF_INET, address.c_str(), bytes.data()) == 1 ||
         ::inet_pton(AF_INET6, address.c_str(), bytes.data()) == 1;
}

ZrDescriptor OpenListener(const ZrSocketAddress& address, int backlog, int* error) {
  ZrDescriptor socket = OpenSocket(address);
  if (!socket.IsOpen()) return Failed(error);
  // Connections of an earlier server that still linger do not hold the port; a listener does.
  if (!SetOption(socket.Get(), SOL_SOCKET, SO_REUSEADDR, 1)) return Failed(error);
  if (address.family == ZrAddressFamily::kIPv6 &&
      !SetOption(socket.Get(), IPPROTO_IPV6, IPV6_V6ONLY, 0))
    return Failed(error);
  if (::bind(socket.Get(), Native(address), address.length) != 0) return Failed(error);
  if (::listen(socket.Get(), backlog) != 0) return Failed(error);
  return socket;
}

ZrSocketAddress WithPort(ZrSocketAddress address, int port) {
  const auto number = htons(static_cast<std::uint16_t>(port));
  const std::size_t place = address.family == ZrAddressFamily::kIPv6
                                ? offsetof(sockaddr_in6, sin6_port)
                                : offsetof(sockaddr_in, sin_port);
  ::memcpy(address.bytes.data() + place, &number, sizeof number);
  return address;
}

bool IsAddressMissing(int error) { return error == EADDRNOTAVAIL || error == EAFNOSUPPORT; }

int LocalPort(int socket) {
  sockaddr_storage address{};
  socklen_t length = sizeof address;
  if (::getsockname(socket, reinterpret_cast<sockaddr*>(&address), &length) != 0) return -1;
  if (address.ss_family == AF_INET6)
    return ntohs(reinterpret_cast<const sockaddr_in6*>(&address)->sin6_port);
  if (address.ss_family == AF_INET)
    return ntohs(reinterpret_cast<const sockaddr_in*>(&address)->sin_port);
  return -1;
}

ZrAccepted AcceptPeer(int listener) {
  ZrAccepted result;
  sockaddr_storage address{};
  socklen_t length = sizeof address;
  int socket = -1;
  do {
    socket = ::accept4(listener, reinterpret_cast<sockaddr*>(&address), &length,
                       SOCK_NONBLOCK | SOCK_CLOEXEC);
  } while (socket < 0 && errno == EINTR);
  if (socket < 0) {
    result.error = errno;
    if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM)
      result.status = ZrAcceptStatus::kExhausted;
    else
      result.status = IsPeerError(errno) ? ZrAcceptStatus::kNoPeer : ZrAcceptStatus::kFailed;
    return result;
  }
  result.socket = ZrDescriptor(socket);
  if (!result.socket.IsOpen()) {
    result.error = errno;
    result.status = ZrAcceptStatus::kExhausted;
    return result;
  }
  result.status = ZrAcceptStatus::kAccepted;
  result.peer = FromNative(&address, length, address.ss_family);
  // Answers are written whole; waiting to fill a segment would only delay them.
  SetOption(result.socket.Get(), IPPROTO_TCP, TCP_NODELAY, 1);
  return result;
}

ZrNumericName NumericName(const ZrSocketAddress& address) {
  std::array<char, NI_MAXHOST> host{};
  std::array<char, NI_MAXSERV> service{};
  if (::getnameinfo(Native(address), address.length, host.data(), host.size(), service.data(),
                    service.size(), NI_NUMERICHOST | NI_NUMERICSERV) != 0)
    return {};
  return {host.data(), service.data()};
}

namespace {

// 0 when the socket became writable, otherwise the error number.
int WaitConnected(int socket, std::chrono::milliseconds limit,
                  const std::function<bool()>& cancelled) {
  using std::chrono::steady_clock;
  const auto deadline = steady_clock::now() + limit;
  for (;;) {
    if (cancelled && cancelled()) return ECANCELED;
    const auto left =
        std::max(std::chrono::milliseconds::zero(),
                 std::chrono::ceil<std::chrono::milliseconds>(deadline - steady_clock::now()));
    const auto slice = cancelled ? std::min(left, kCancelSlice) : left;
    if (WaitWritable(socket, slice) == ZrWaitStatus::kReady) return 0;
    if (left <= slice) return ETIMEDOUT;
  }
}

}  // namespace

ZrConnectFailure ConnectFailureOf(int error) {
  switch (error) {
    case ECONNREFUSED:
      return ZrConnectFailure::kRefused;
    case ETIMEDOUT:
      return ZrConnectFailure::kTimedOut;
    case ECANCELED:
      return ZrConnectFailure::kCancelled;
    default:
      return ZrConnectFailure::kOther;
  }
}

ZrDescriptor ConnectTo(const ZrSocketAddress& address, std::chrono::milliseconds limit, int* error,
                       int* attempted, const std::function<bool()>& cancelled) {
  ZrDescriptor socket = OpenSocket(address);
  if (attempted != nullptr) *attempted = socket.Get();
  if (!socket.IsOpen()) return Failed(error);
  SetOption(socket.Get(), IPPROTO_TCP, TCP_NODELAY, 1);
  if (::connect(socket.Get(), Native(address), address.length) == 0) return socket;
  // An interrupted connect goes on in the background like one that is in progress.
  if (errno != EINPROGRESS && errno != EINTR) return Failed(error);
  if (const int failure = WaitConnected(socket.Get(), limit, cancelled); failure != 0) {
    errno = failure;
    return Failed(error);
  }
  int outcome = 0;
  socklen_t length = sizeof outcome;
  if (::getsockopt(socket.Get(), SOL_SOCKET, SO_ERROR, &outcome, &length) != 0)
    return Failed(error);
  if (outcome != 0) {
    errno = outcome;
    return Failed(error);
  }
  return socket;
}

void ShutdownSend(int socket) noexcept { ::shutdown(socket, SHUT_WR); }

// Disconnecting does it at once, whatever is done with the socket later.
void ResetConnection(int socket) noexcept {
  const sockaddr nobody{AF_UNSPEC, {}};
  [[maybe_unused]] const int result = ::connect(socket, &nobody, sizeof nobody);
}

void ShutdownBoth(int socket) noexcept { ::shutdown(socket, SHUT_RDWR); }

}  // namespace zr
