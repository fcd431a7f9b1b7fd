#pragma once
// TCP sockets as the system gives them: resolving, opening, moving bytes, waiting. ZrSocketIPvx and
// the I/O jobs are built on it. Rules for every call here:
// - sockets are close-on-exec from birth and non-blocking; TCP_NODELAY is on for connections;
// - EINTR is retried inside, with the time that is left of a wait;
// - nothing raises SIGPIPE and nothing changes the process's signal dispositions;
// - nothing throws but std::bad_alloc; failures are results that carry the system's error number.
// Threads: any; the calls hold no state of their own.

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/descriptor.h"
#include "platform/file.h"
#include "platform/io.h"

enum class ZrAddressFamily { kIPv4, kIPv6 };

/// One socket address in the system's own form.
struct ZrSocketAddress {
  alignas(8) std::array<unsigned char, 128> bytes{};
  std::uint32_t length = 0;
  ZrAddressFamily family = ZrAddressFamily::kIPv4;
};

/// Why no connection came about.
enum class ZrConnectFailure {
  kNone = 0,       ///< It did, or nobody has tried yet.
  kNoHost = 1,     ///< The host's name has no address, or the lookup failed.
  kRefused = 2,    ///< Nobody listens there.
  kTimedOut = 3,   ///< No answer within the limit.
  kCancelled = 4,  ///< The caller did not want it any more.
  kOther = 5,      ///< The system's error number says why.
};

/// The addresses of a name, in the resolver's order, or why there are none.
struct ZrResolution {
  std::vector<ZrSocketAddress> addresses;
  std::string error;  ///< The resolver's text for the failure; empty on success.
  ZrConnectFailure failure = ZrConnectFailure::kNone;  ///< kNoHost, kTimedOut, kCancelled
};

/// Numeric host and service of an address.
struct ZrNumericName {
  std::string host;
  std::string service;
};

/// How an attempt to accept one peer ended.
enum class ZrAcceptStatus {
  kAccepted = 0,  ///< `socket` is the new connection.
  kNoPeer = 1,    ///< Nobody is waiting, or the peer went away again; wait for readiness.
  kExhausted =
      2,        ///< Descriptors or socket memory ran out; the peer still waits. Pause, then retry.
  kFailed = 3,  ///< The listening socket is unusable; `error` says why.
};

struct ZrAccepted {
  ZrAcceptStatus status = ZrAcceptStatus::kNoPeer;
  ZrDescriptor socket;
  ZrSocketAddress peer;
  int error = 0;
};

/// What a wait for one descriptor found.
enum class ZrWaitStatus {
  kReady = 0,    ///< Readable or writable as asked, or in an error state that the next call shows.
  kTimeout = 1,  ///< Not within the time limit.
  kFailed = 2,   ///< The wait itself failed (no such descriptor).
};

namespace zr {

inline constexpr int kHighestPort = 65535;

/// The wildcard addresses for a listener on that port (decimal). A port outside 0..65535 is an
/// error with the resolver's text for an unusable service.
ZrResolution ResolveListener(int port);
/// The stream addresses of a host, looked up within the time limit (negative: as long as the
/// system's resolver takes). `cancelled` (may be empty) is asked every kCancelSlice. A lookup that
/// is given up goes on by itself to its end, and keeps the library that holds this code from being
/// unloaded.
ZrResolution ResolveHost(const std::string& host, int port,
                         std::chrono::milliseconds limit = std::chrono::milliseconds(-1),
                         const std::function<bool()>& cancelled = {});
/// So many look-ups of names run at once, given up or not; others wait for a place among them.
inline constexpr std::size_t kMostLookups = 64;
/// A wait that somebody may call off is made of short ones.
inline constexpr std::chrono::milliseconds kCancelSlice{24};
/// Whether the text is a numeric IPv4 or IPv6 address (no name lookup is made).
bool IsNumericAddress(const std::string& host);

/// The same address with another port.
ZrSocketAddress WithPort(ZrSocketAddress address, int port);
/// Opens a listening socket. SO_REUSEADDR is on, so a restart on the same port works at once, while
/// a port that another socket listens on stays taken; an IPv6 socket takes IPv4 peers, too.
/// The result is closed when it failed; `error` (may be null) then gets the error number.
ZrDescriptor OpenListener(const ZrSocketAddress& address, int backlog, int* error = nullptr);
/// Whether the error number says that the machine does not have the address: others may be had.
bool IsAddressMissing(int error);
/// The local port of a bound socket, or -1.
int LocalPort(int socket);
/// Takes one waiting peer without waiting for one.
ZrAccepted AcceptPeer(int listener);
/// Numeric host and service; both empty when the address has no such form.
ZrNumericName NumericName(const ZrSocketAddress& address);

/// Connects within the time limit. The result is closed when it failed or took too long; `error`
/// (may be null) then gets the error number and `attempted` (may be null) always the descriptor
/// number that was tried, -1 when there was none. `cancelled` (may be empty) is asked every
/// kCancelSlice.
ZrDescriptor ConnectTo(const ZrSocketAddress& address, std::chrono::milliseconds limit,
                       int* error = nullptr, int* attempted = nullptr,
                       const std::function<bool()>& cancelled = {});
/// The kind of an error number of ConnectTo(); never kNone.
ZrConnectFailure ConnectFailureOf(int error);

/// Sends what the socket takes of the bytes now. A peer that is gone is kClosed.
ZrIoResult SendBytes(int socket, std::string_view bytes);
/// The same for several pieces in one call; at most kMostPieces of them are looked at.
inline constexpr std::size_t kMostPieces = 16;
ZrIoResult SendPieces(int socket, std::span<const std::string_view> pieces);
/// Sends up to `length` bytes of a file from `offset` without copying them through the process;
/// kDone with count 0 is the end of the file.
ZrIoResult SendFile(int socket, const ZrFile& file, std::uint64_t offset, std::size_t length);

/// Receives what is there into `target` (not empty). The peer's orderly end is kClosed with error
/// 0, a broken connection kClosed or kFailed with its error number.
ZrIoResult ReceiveBytes(int socket, std::span<char> target);
/// Takes one byte of out-of-band data and drops it. Readiness without such data is kWouldBlock.
ZrIoResult DropUrgentByte(int socket);

/// Waits until the descriptor can be read (or has urgent data) or the time has passed; a negative
/// limit waits for ever, 0 only looks.
ZrWaitStatus WaitReadable(int descriptor, std::chrono::milliseconds limit);
ZrWaitStatus WaitWritable(int descriptor, std::chrono::milliseconds limit);
/// Waits for the first readable one of several descriptors (at most kMostPieces, negative ones are
/// left out); returns its index, or -1 when none became readable in time.
int WaitAnyReadable(std::span<const int> descriptors, std::chrono::milliseconds limit);

/// Ends the sending direction: the peer reads to the end of what was sent. Errors are dropped.
void ShutdownSend(int socket) noexcept;
/// Ends a connection so that the peer sees no end in order but a reset; what was not sent yet is
/// lost. Errors are dropped.
void ResetConnection(int socket) noexcept;
/// Ends both directions. Errors are dropped.
void ShutdownBoth(int socket) noexcept;

}  // namespace zr
