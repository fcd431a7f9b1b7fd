// Name lookups. The C library's resolver cannot be called off: a name is looked up on a thread of
// its own, and a caller that gives up leaves that thread behind. The thread owns all that it works
// with; but the code that it returns to must not be unloaded, so from then on this library stays.

#include <errno.h>
#include <netdb.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>

#include <algorithm>
#include <memory>
#include <optional>
#include <system_error>

#include "platform/library.h"
#include "platform/socket.h"
#include "platform/sync.h"
#include "platform/thread.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

ZrResolution Failed(const char* error, ZrConnectFailure failure) { return {{}, error, failure}; }

ZrResolution Resolve(const char* node, int port, int flags) {
  if (port < 0 || port > zr::kHighestPort) {
    // The resolver itself would cut the number to 16 bits and open some other port.
    return Failed(::gai_strerror(EAI_SERVICE), ZrConnectFailure::kNoHost);
  }
  addrinfo hints{};
  hints.ai_flags = flags;
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_protocol = IPPROTO_TCP;
  addrinfo* list = nullptr;
  int failure = 0;
  do {
    failure = ::getaddrinfo(node, std::to_string(port).c_str(), &hints, &list);
  } while (failure == EAI_SYSTEM && errno == EINTR);
  if (failure != 0) {
    return Failed(failure == EAI_SYSTEM ? zr::SystemErrorText(errno) : ::gai_strerror(failure),
                  ZrConnectFailure::kNoHost);
  }
  const std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> owned(list, &::freeaddrinfo);
  ZrResolution result;
  for (const addrinfo* entry = list; entry != nullptr; entry = entry->ai_next) {
    if (entry->ai_family != AF_INET && entry->ai_family != AF_INET6) continue;
    ZrSocketAddress& address = result.addresses.emplace_back();
    address.length = entry->ai_addrlen;
    address.family = entry->ai_family == AF_INET6 ? ZrAddressFamily::kIPv6 : ZrAddressFamily::kIPv4;
    ::memcpy(address.bytes.data(), entry->ai_addr, entry->ai_addrlen);
  }
  return result;
}

struct Lookup {
  ZrMutex lock;
  ZrCondition ended;  // `result` was set
  std::optional<ZrResolution> result ZR_GUARDED_BY(lock);
};

// What has become of it by then; nothing when it goes on.
std::optional<ZrResolution> WaitFor(Lookup& lookup, milliseconds limit,
                                    const std::function<bool()>& cancelled) {
  const bool bounded = limit >= milliseconds::zero();
  const auto deadline = steady_clock::now() + limit;
  ZrLock hold(lookup.lock);
  for (;;) {
    const auto next = steady_clock::now() + zr::kCancelSlice;
    if (lookup.ended.WaitUntil(lookup.lock, bounded ? std::min(next, deadline) : next,
                               [&lookup]()
                                   ZR_REQUIRES(lookup.lock) { return lookup.result.has_value(); }))
      return std::move(lookup.result);
    if ((bounded && steady_clock::now() >= deadline) || (cancelled && cancelled())) return {};
  }
}

}  // namespace

namespace zr {

ZrResolution ResolveListener(int port) { return Resolve(nullptr, port, AI_PASSIVE); }

ZrResolution ResolveHost(const std::string& host, int port, milliseconds limit,
                         const std::function<bool()>& cancelled) {
  if (IsNumericAddress(host)) return Resolve(host.c_str(), port, 0);
  const auto lookup = std::make_shared<Lookup>();
  ZrThread thread;
  try {
    thread = ZrThread::Start(
        "zr-lookup",
        [lookup, host, port] {
          ZrResolution result = Resolve(host.c_str(), port, 0);
          ZrLock hold(lookup->lock);
          lookup->result = std::move(result);
          lookup->ended.NotifyAll();
        });
  } catch (const std::system_error&) {
    return Resolve(host.c_str(), port, 0);  // the system has no thread left: it takes its time
  }
  std::optional<ZrResolution> result = WaitFor(*lookup, limit, cancelled);
  if (!result && StayLoaded()) {
    thread.Abandon();
    return cancelled && cancelled()
               ? Failed("the name lookup was called off", ZrConnectFailure::kCancelled)
               : Failed("no answer to the name lookup", ZrConnectFailure::kTimedOut);
  }
  thread.Join();
  if (!result) result = WaitFor(*lookup, milliseconds::zero(), {});
  return std::move(*result);
}

}  // namespace zr
