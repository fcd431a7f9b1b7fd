#pragma once
// The threads that a program's handlers run on, and the requests that wait for their answers. A
// request is open from the moment it is taken until its answer has been sent, whoever sends it: a
// handler, somebody later, or the watch when its time is up. At the end all that are open are given
// up, so that nobody sends through a server that has gone.

#include <chrono>
#include <cstddef>
#include <deque>
#include <functional>
#include <list>
#include <memory>
#include <vector>

#include "platform/sync.h"
#include "platform/thread.h"

/// What the pool runs: a request with its answer.
class ZrHandlerTask {
 public:
  virtual ~ZrHandlerTask() = default;
  /// On a thread of the pool. Throws nothing.
  virtual void Run() = 0;
  /// Answers in the place of whoever has not answered yet, if anybody has not.
  virtual void GiveUp() = 0;

 private:
  friend class ZrHandlerPool;
  // Guarded by the pool's lock.
  std::list<std::shared_ptr<ZrHandlerTask>>::iterator place_;
  std::chrono::steady_clock::time_point due_;
  bool late_ = false;
};

/// Threads: any.
class ZrHandlerPool {
 public:
  using Task = std::shared_ptr<ZrHandlerTask>;

  /// Starts no thread. Without limit (zero) nothing is given up before the end.
  ZrHandlerPool(std::size_t mostThreads, std::chrono::nanoseconds limit);
  ZrHandlerPool(const ZrHandlerPool&) = delete;
  ZrHandlerPool& operator=(const ZrHandlerPool&) = delete;
  ~ZrHandlerPool() { Close(); }

  /// Takes the task, which keeps the pool and is open until Done(). It runs when the caller's
  /// batch, if there is one, has ended. No: the pool ends, or the system has no thread.
  [[nodiscard]] bool Submit(const Task& task) ZR_EXCLUDES(lock_);
  void Done(ZrHandlerTask& task) ZR_EXCLUDES(lock_);
  /// Takes nothing more, gives up what is open, and waits for all runs. Not called from one.
  void Close() ZR_EXCLUDES(lock_);
  /// Whether Close() has begun.
  bool IsClosing() ZR_EXCLUDES(lock_);
  /// Whether the calling thread is one of this pool's, or stands in a Caller of it.
  bool IsCaller() const noexcept;
  /// Code of the program that a thread of the server runs: like a handler it is waited for at the
  /// end, and must not wait for that.
  class Caller {
   public:
    explicit Caller(const ZrHandlerPool& of) noexcept;
    ~Caller();
    Caller(const Caller&) = delete;
    Caller& operator=(const Caller&) = delete;

   private:
    const ZrHandlerPool* const outer_;
  };

 private:
  using Clock = std::chrono::steady_clock;

  struct Wakeup;

  bool Enter(const Task& task) ZR_EXCLUDES(lock_);
  void Wake() ZR_EXCLUDES(lock_);
  void Loop() ZR_EXCLUDES(lock_);
  Task Next() ZR_EXCLUDES(lock_);
  bool HaveThread() ZR_REQUIRES(lock_);
  void Watch() ZR_EXCLUDES(lock_);
  std::vector<Task> TakeLate(Clock::time_point& next) ZR_REQUIRES(lock_);

  const std::size_t mostThreads_;
  const std::chrono::nanoseconds limit_;

  ZrMutex lock_;  // never held while calling out
  bool closing_ ZR_GUARDED_BY(lock_) = false;
  std::deque<Task> queue_ ZR_GUARDED_BY(lock_);
  std::list<Task> open_ ZR_GUARDED_BY(lock_);  // in the order of their times
  std::size_t idle_ ZR_GUARDED_BY(lock_) = 0;
  bool watchRests_ ZR_GUARDED_BY(lock_) = false;  // the watch waits for the first task
  ZrCondition wake_;                              // queue_ grew or closing_ was set
  ZrCondition watchWake_;                         // open_ is empty no more, or closing_ was set
  ZrCondition allDone_;                           // open_ became empty
  std::vector<ZrThread> threads_ ZR_GUARDED_BY(lock_);
  ZrThread watch_ ZR_GUARDED_BY(lock_);
};
