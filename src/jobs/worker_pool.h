#pragma once
// Threads for the scheduler's runs: every body has one to itself at once. A thread whose body has
// ended waits for the next one, since starting a thread costs more than waking it; only a few are
// kept that way.

#include <cstddef>
#include <functional>
#include <list>
#include <memory>
#include <vector>

#include "platform/sync.h"
#include "platform/thread.h"

/// Growing pool of threads. Threads: any.
class ZrWorkerPool {
 public:
  ZrWorkerPool() = default;
  ZrWorkerPool(const ZrWorkerPool&) = delete;
  ZrWorkerPool& operator=(const ZrWorkerPool&) = delete;
  /// Waits for the running bodies. Not called from one of them.
  ~ZrWorkerPool() ZR_EXCLUDES(lock_);

  /// Runs the body on a thread of its own, beside all others. It catches its own exceptions.
  /// Throws std::system_error when the system gives no thread; the body does not run then.
  void Run(std::function<void()> body) ZR_EXCLUDES(lock_);

  /// So many threads are kept without work.
  static constexpr std::size_t kKeptThreads = 8;

 private:
  struct Worker {
    ZrCondition wake;  // body or stopping_ was set
    std::function<void()> body;
    ZrThread thread;
  };
  using Workers = std::list<Worker>;

  void Loop(Workers::iterator self) ZR_EXCLUDES(lock_);

  ZrMutex lock_;  // guards all members, those of the workers included; never held in a body
  bool stopping_ ZR_GUARDED_BY(lock_) = false;
  Workers workers_ ZR_GUARDED_BY(lock_);
  std::vector<Workers::iterator> idle_ ZR_GUARDED_BY(lock_);
  std::vector<ZrThread> left_ ZR_GUARDED_BY(lock_);  // ended or about to, to be joined
};
