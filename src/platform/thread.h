#pragma once
// Threads of the library. A host's signals are for the host's threads: a thread started here takes
// none of them, so neither a SIGINT handler of the host nor a SIGPIPE ever runs or strikes on it.

#include <cstdint>
#include <functional>
#include <thread>

/// One running thread; joined by its owner or by the destructor. Threads: one owner at a time.
class ZrThread {
 public:
  ZrThread() = default;
  ZrThread(ZrThread&&) noexcept = default;
  /// Joins the thread held so far.
  ZrThread& operator=(ZrThread&& other) noexcept;
  /// Joins.
  ~ZrThread() { Join(); }

  /// Starts `body` on a new thread. The name is for debuggers and is cut at 15 characters.
  /// Every asynchronous signal is blocked on it (processes started from it inherit that mask and
  /// have to reset it). An exception that leaves `body` is dropped: bodies catch their own.
  /// Throws std::system_error when the system gives no thread.
  static ZrThread Start(const char* name, std::function<void()> body);

  bool Joinable() const noexcept { return thread_.joinable(); }
  /// Waits for the end of the thread. Does nothing when there is none. A thread that would wait
  /// for itself is let go instead.
  void Join() noexcept;
  /// Lets the thread run on by itself; its code must stay loaded.
  void Abandon() noexcept { thread_.detach(); }

 private:
  std::thread thread_;
};

/// What the calling thread has used since it started.
struct ZrThreadUse {
  std::int64_t cpuNs = 0;        ///< Processor time, nanoseconds.
  std::int64_t waits = 0;        ///< How often it gave the processor up to wait for something.
  std::int64_t preemptions = 0;  ///< How often the system gave the processor to another.
  static ZrThreadUse Now() noexcept;
};

namespace zr {

/// Has this thread run when others do not want the processor, for good. Where the system does not
/// do that, nothing changes.
void YieldToOthers() noexcept;
/// Whether this thread was told to: no use for other work any more, nor what it starts.
bool YieldsToOthers() noexcept;

/// Whether this process was forked from one in which the library had started threads. They are not
/// here, and what they held at that moment, locks above all, stays held for ever: what ends
/// something at the exit of the process or the end of the library asks this first, and then leaves
/// everything as it is.
bool IsForkOfThreads() noexcept;

/// For tests: of the threads that are started from now on, the one with that number, counted from
/// 1, cannot be had; 0 ends this. Threads: any.
void FailThreadStart(int number) noexcept;

}  // namespace zr
