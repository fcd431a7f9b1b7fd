#pragma once
// Signals as something a program waits for, for the command line only: the library never touches
// its host's signals.

#include <atomic>
#include <chrono>

#include "platform/descriptor.h"

namespace zr {

enum class Signal {
  kStop,     // SIGINT or SIGTERM
  kReopen,   // SIGHUP
  kWake,     // Wake() was called
  kTimeout,  // the limit has passed
};

/// Takes SIGINT and SIGTERM, and SIGHUP when that is to be waited for, out of their usual delivery
/// as long as it lives, and ignores SIGPIPE. Made on the first thread, before any other thread
/// exists (threads inherit what it blocks), and destroyed there. From then on a signal does again
/// what it did, and what is pending does it at once; but when a stop was taken, SIGINT and SIGTERM
/// end the process at once with status 0. The constructor throws std::system_error.
class ZrSignalWaiter {
 public:
  explicit ZrSignalWaiter(bool reopens);
  ~ZrSignalWaiter();
  ZrSignalWaiter(const ZrSignalWaiter&) = delete;
  ZrSignalWaiter& operator=(const ZrSignalWaiter&) = delete;

  /// Waits for a signal or a wake-up, without an end for a negative limit. Threads: one at a time.
  Signal Wait(std::chrono::milliseconds limit = std::chrono::milliseconds(-1));
  /// Ends a wait, or the next one. Threads: any.
  void Wake() noexcept;

 private:
  ZrDescriptor signals_;  // the signals to read
  ZrDescriptor wake_;     // a counter: above 0 ends a wait
  std::atomic<bool> stopTaken_{false};
};

}  // namespace zr
