#pragma once
// Signals as something a program waits for, for the command line only: the library never touches
// its host's signals.

namespace zr {

enum class Signal {
  kStop,    // SIGINT or SIGTERM
  kReopen,  // SIGHUP
  kWake,    // Wake() was called
};

/// Takes SIGINT, SIGTERM and SIGHUP out of their usual delivery for the rest of the process and
/// ignores SIGPIPE. Made once, on the first thread, before any other thread exists (threads inherit
/// what it blocks). Throws std::system_error.
class ZrSignalWaiter {
 public:
  ZrSignalWaiter();
  ~ZrSignalWaiter();
  ZrSignalWaiter(const ZrSignalWaiter&) = delete;
  ZrSignalWaiter& operator=(const ZrSignalWaiter&) = delete;

  /// Waits for a signal or a wake-up. Threads: one at a time.
  Signal Wait();
  /// Ends a wait, or the next one. Threads: any.
  void Wake() noexcept;

 private:
  int signals_ = -1;  // the signals to read
  int wake_ = -1;     // a counter: above 0 ends a wait
};

}  // namespace zr
