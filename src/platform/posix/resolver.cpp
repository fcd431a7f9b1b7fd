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

// At most so many threads look up at once, those that nobody waits for any more included: a
// resolver that does not answer holds up later look-ups of names, not the process.
class Places {
 public:
  /// Takes one as soon as there is one. No: not in time, or it was called off.
  bool Take(steady_clock::time_point deadline, const std::function<bool()>& cancelled)
      ZR_EXCLUDES(lock_) {
    ZrLock hold(lock_);
    for (;;) {
      const auto now = steady_clock::now();
      if (freed_.WaitUntil(lock_, std::min(deadline, now + zr::kCancelSlice),
                           [this]() ZR_REQUIRES(lock_) { return taken_ < zr::kMostLookups; })) {
        ++taken_;
        return true;
      }
      if (now >= deadline || (cancelled && cancelled())) return false;
    }
  }
  void Free() ZR_EXCLUDES(lock_) {
    ZrLock hold(lock_);
    --taken_;
    freed_.NotifyOne();
  }
  static Places& Instance() {
    static Places* const places = new Places;  // look-ups that were given up may end after main()
    return *places;
  }

 private:
  ZrMutex lock_;
  ZrCondition freed_;  // taken_ shrank
  std::size_t taken_ ZR_GUARDED_BY(lock_) = 0;
};

struct Lookup {
  ZrMutex lock;
  ZrCondition ended;  // `result` was set
  std::optional<ZrResolution> result ZR_GUARDED_BY(lock);
};

// What has become of it by then; nothing when it goes on.
std::optional<ZrResolution> WaitFor(Lookup& lookup, steady_clock::time_point deadline,
                                    const std::function<bool()>& cancelled) {
  ZrLock hold(lookup.lock);
  for (;;) {
    const auto next = steady_clock::now() + zr::kCancelSlice;
    if (lookup.ended.WaitUntil(lookup.lock, std::min(next, deadline),
                               [&lookup]()
                                   ZR_REQUIRES(lookup.lock) { return lookup.result.has_value(); }))
      return std::move(lookup.result);
    if (steady_clock::now() >= deadline || (cancelled && cancelled())) return {};
  }
}

ZrResolution GivenUp(const std::function<bool()>& cancelled) {
  return cancelled && cancelled()
             ? Failed("the name lookup was called off", ZrConnectFailure::kCancelled)
             : Failed("no answer to the name lookup", ZrConnectFailure::kTimedOut);
}

}  // namespace

namespace zr {

ZrResolution ResolveListener(int port) { return Resolve(nullptr, port, AI_PASSIVE); }

ZrResolution ResolveHost(const std::string& host, int port, milliseconds limit,
                         const std::function<bool()>& cancelled) {
  if (IsNumericAddress(host)) return Resolve(host.c_str(), port, 0);
  const auto deadline =
      limit < milliseconds::zero() ? steady_clock::time_point::max() : steady_clock::now() + limit;
  const auto lookup = std::make_shared<Lookup>();
  if (!Places::Instance().Take(deadline, cancelled)) return GivenUp(cancelled);
  ZrThread thread;
  try {
    thread = ZrThread::Start(
        "zr-lookup",
        [lookup, host, port] {
          ZrResolution result = Resolve(host.c_str(), port, 0);
          Places::Instance().Free();
          ZrLock hold(lookup->lock);
          lookup->result = std::move(result);
          lookup->ended.NotifyAll();
        });
  } catch (const std::system_error&) {
    Places::Instance().Free();
    return Resolve(host.c_str(), port, 0);  // the system has no thread left: it takes its time
  }
  std::optional<ZrResolution> result = WaitFor(*lookup, deadline, cancelled);
  if (!result && StayLoaded()) {
    thread.Abandon();
    return GivenUp(cancelled);
  }
  thread.Join();
  if (!result) result = WaitFor(*lookup, steady_clock::now(), {});
  return std::move(*result);
}

}  // namespace zr
