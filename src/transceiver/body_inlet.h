#pragma once
// The body of a request that was handed out before all of it had come: whoever answers the request
// takes the bytes as they arrive, at its own pace. What it does not take waits in the connection,
// whose reading pauses soon, so that neither side holds more than a few pieces.
//
//   server, head complete     ZrBodyInlet(rest): the message that reads the body on
//   its reader                OnArrival(tell me), then Take() until the end
//   server, answer sent       Cut(): what has not come by then is the server's to read off
//
// The end of the answer ends the connection's turn, and only a body that was read to its end lets
// the next request begin behind it: this object decides who of the two sides has read how far.

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

#include "platform/sync.h"
#include "transceiver/fwd.h"

class ZrStringBuf;

/// Held in shared ownership by the request and its answers. Threads: any.
class ZrBodyInlet {
 public:
  using Time = std::chrono::steady_clock::time_point;

  enum class Next {
    kSome,    ///< Bytes were added.
    kWait,    ///< None are there now: OnArrival() tells when that may have changed.
    kEnd,     ///< The body is complete.
    kFailed,  ///< The rest will not come, see Refusal(); the connection closes behind the answer.
  };

  /// `rest` has the state in which the body is read, and its bytes that have come.
  ZrBodyInlet(std::shared_ptr<ZrXHeader> rest, std::weak_ptr<ZrTransceiverConnection> connection);

  /// Has the action called whenever Take() may answer something new: on threads that receive for
  /// all, with no lock of this object held. An empty one ends it.
  void OnArrival(std::function<void()> action);
  /// Adds what has come to the target.
  Next Take(ZrStringBuf& to) ZR_EXCLUDES(lock_);
  /// When the peer is too late if nothing comes until then; nothing while it is not waited for.
  std::optional<Time> Due() const ZR_EXCLUDES(lock_);
  /// The status for a body that failed.
  std::uint64_t Refusal() const ZR_EXCLUDES(lock_);

  /// For the server, before the turn ends: nobody takes any more. The message that reads the rest,
  /// nothing when the body is complete or failed.
  std::shared_ptr<ZrXHeader> Cut() ZR_EXCLUDES(lock_);

 private:
  Next Fail(ZrTransceiverConnection& connection, std::uint64_t status) ZR_REQUIRES(lock_);
  Next Wait(ZrTransceiverConnection& connection, bool ended) ZR_REQUIRES(lock_);
  Time Late() const ZR_REQUIRES(lock_);

  const std::weak_ptr<ZrTransceiverConnection> connection_;
  mutable ZrMutex lock_;                                  // taken before the connection's
  std::shared_ptr<ZrXHeader> rest_ ZR_GUARDED_BY(lock_);  // none: complete, failed or cut
  bool complete_ ZR_GUARDED_BY(lock_) = false;
  std::uint64_t refusal_ ZR_GUARDED_BY(lock_) = 0;
  std::optional<Time> waitsSince_ ZR_GUARDED_BY(lock_);
  std::chrono::nanoseconds waited_ ZR_GUARDED_BY(lock_){0};  // for the peer, before that
};
