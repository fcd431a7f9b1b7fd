#pragma once
// What the other end of a TCP connection on this machine has not read yet; the system tells
// (Linux).

#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/socket.h>

#include <cstddef>

#include "platform/descriptor.h"
#include "tests/support/wait.h"

namespace zrtest {

/// In bytes; 0 also when the other end is gone.
inline std::size_t UnreadByPeer(int socket) {
  sockaddr_in own{};
  sockaddr_in other{};
  socklen_t length = sizeof own;
  getsockname(socket, reinterpret_cast<sockaddr*>(&own), &length);
  getpeername(socket, reinterpret_cast<sockaddr*>(&other), &length);
  struct {
    nlmsghdr header;
    inet_diag_req_v2 request;
  } ask{};
  ask.header = {sizeof ask, SOCK_DIAG_BY_FAMILY, NLM_F_REQUEST, 0, 0};
  ask.request.sdiag_family = AF_INET;
  ask.request.sdiag_protocol = IPPROTO_TCP;
  ask.request.idiag_states = ~0U;
  ask.request.id.idiag_sport = other.sin_port;
  ask.request.id.idiag_dport = own.sin_port;
  ask.request.id.idiag_src[0] = other.sin_addr.s_addr;
  ask.request.id.idiag_dst[0] = own.sin_addr.s_addr;
  ask.request.id.idiag_cookie[0] = ask.request.id.idiag_cookie[1] = INET_DIAG_NOCOOKIE;
  static const ZrDescriptor system(
      ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_SOCK_DIAG));
  send(system.Get(), &ask, sizeof ask, 0);
  alignas(nlmsghdr) char answer[4096];
  if (recv(system.Get(), answer, sizeof answer, 0) <= 0) return 0;
  const auto* const header = reinterpret_cast<const nlmsghdr*>(answer);
  if (header->nlmsg_type != SOCK_DIAG_BY_FAMILY) return 0;
  return static_cast<const inet_diag_msg*>(NLMSG_DATA(header))->idiag_rqueue;
}

/// Waits until the other end has read all, or is gone. One test thread at a time.
inline bool WaitUntilTaken(int socket) {
  for (int i = 0; i < 100; ++i) {  // it is a matter of microseconds, mostly
    if (UnreadByPeer(socket) == 0) return true;
    sched_yield();
  }
  return WaitFor([socket] { return UnreadByPeer(socket) == 0; });
}

}  // namespace zrtest
