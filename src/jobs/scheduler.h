#pragma once
// Runs the system's work. A task is a function over a record; each run has a thread of its own, so
// that long loops (accept loops, work queues, the receive and send jobs) stand beside each other.
// The submitter asks for the end of a task, or waits for it, and fetches its result; repeating
// tasks run again after their delay until they are cancelled.
//
// Three roles keep tasks going. Dispatching (start what is ready) and collecting (take the result
// of a run that ended) are done by whoever makes work for them, the submitter or the ending run:
// a thread for each would only cost wake-ups. Time makes the timer's work, so that has a thread,
// started by the first task that repeats; it sleeps until the earliest task is due. Threads of
// ended runs are kept for the next ones (ZrWorkerPool).

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <unordered_map>

#include "jobs/task_record.h"
#include "jobs/worker_pool.h"
#include "platform/sync.h"
#include "platform/thread.h"

struct ZrRinvalTaskRecord;

/// Task scheduler; owned by the application. Threads: any, except that a task neither stops nor
/// destroys the scheduler it runs on. Record and function of a task are touched by one thread at a
/// time: its run, then whoever fetches the result.
class ZrRinvalScheduler2 {
 public:
  /// Gets the task's record (owned by the scheduler) and returns that one or another, then owned by
  /// the scheduler; its `kind` says whether to run again. A function that throws or returns null
  /// ends its task without a result and with a line on standard error.
  using TaskFunction =
      std::function<ZrRinvalJobParametersAndResult*(ZrRinvalJobParametersAndResult*)>;

  /// Starts no thread.
  ZrRinvalScheduler2();
  ZrRinvalScheduler2(const ZrRinvalScheduler2&) = delete;
  ZrRinvalScheduler2& operator=(const ZrRinvalScheduler2&) = delete;
  /// Stops, waits until nobody waits in WaitDone() any more, then releases all tasks.
  virtual ~ZrRinvalScheduler2();

  /// Starts a task on its own thread, or as soon as no running task shares a bit of its mask.
  /// A null record stands for a plain one with status 1 and the description's kind. Returns the
  /// task's ID; IDs are unique in the process and start at 1. A task for which the system has no
  /// thread, or that comes after Stop(), is done with no result when this returns. (A repeating one
  /// that has run before and finds no thread is tried again.)
  std::uint64_t Submit(TaskFunction function,
                       std::unique_ptr<ZrRinvalJobParametersAndResult> record,
                       const ZrRinvalTaskDescription& description) ZR_EXCLUDES(taskLock_);

  /// Whether a result waits or none will come: yes for unknown IDs and for ended tasks; for a
  /// repeating task once a run has ended and, when it was cancelled, only when no run of it is
  /// running or waiting to start.
  bool IsDone(std::uint64_t id) const ZR_EXCLUDES(taskLock_);
  /// Returns when IsDone() would answer yes. The caller holds no lock that the task takes.
  void WaitDone(std::uint64_t id) const ZR_EXCLUDES(taskLock_);
  /// The same, bounded; returns IsDone().
  bool WaitDoneFor(std::uint64_t id, std::chrono::nanoseconds limit) const ZR_EXCLUDES(taskLock_);

  /// The result of a done task, now the caller's, and the task is forgotten. Null when the ID is
  /// unknown, the task is not done, or it ended without a result. For a task that goes on repeating
  /// and returned its own record the caller gets a copy of the base members as the last run left
  /// them.
  std::unique_ptr<ZrRinvalJobParametersAndResult> FetchResult(std::uint64_t id)
      ZR_EXCLUDES(taskLock_);

  /// Makes the task not run again: a run that has begun goes on to its end, one that waits is
  /// dropped. The last result stays to be fetched.
  void Cancel(std::uint64_t id) ZR_EXCLUDES(taskLock_);

  /// Calls the stop action of every running task once, starts nothing more and returns when all
  /// runs have ended. Tasks that never ran are done with no result. May be called again.
  void Stop() ZR_EXCLUDES(taskLock_);

 private:
  using Clock = std::chrono::steady_clock;
  using Task = ZrRinvalTaskRecord;
  friend struct ZrRinvalTaskRecord;
  using Waiting = std::multimap<Clock::time_point, Task*>;

  bool IsDoneLocked(std::uint64_t id) const ZR_REQUIRES(taskLock_);
  void Dispatch() ZR_REQUIRES(taskLock_);
  void Run(Task& task) noexcept ZR_EXCLUDES(taskLock_);
  void Collect(Task& task, ZrRinvalJobParametersAndResult* result,
               std::unique_ptr<ZrRinvalJobParametersAndResult>& replaced) ZR_REQUIRES(taskLock_);
  void RequeueLater(Task& task) ZR_REQUIRES(taskLock_);
  void StartTimer() ZR_REQUIRES(taskLock_);
  void EndUnrun(Task& task) ZR_REQUIRES(taskLock_);
  void TimerLoop() ZR_EXCLUDES(taskLock_);
  void CallStopAction(std::uint64_t id) ZR_EXCLUDES(taskLock_);

  mutable ZrMutex taskLock_;  // guards all tables; never held while calling out

  mutable ZrCondition ended_;  // a task was done, a stop action returned, waiters_ went down
  std::unordered_map<std::uint64_t, std::unique_ptr<Task>> tasks_ ZR_GUARDED_BY(taskLock_);
  std::list<Task*> ready_ ZR_GUARDED_BY(taskLock_);  // to be started, in order of submission
  std::size_t running_ ZR_GUARDED_BY(taskLock_) = 0;
  std::uint64_t claimedMask_ ZR_GUARDED_BY(taskLock_) = 0;  // masks of the running tasks
  mutable std::size_t waiters_ ZR_GUARDED_BY(taskLock_) = 0;
  bool stopping_ ZR_GUARDED_BY(taskLock_) = false;

  ZrCondition timerWake_;                     // an earlier task waits, or stopping_ was set
  Waiting waiting_ ZR_GUARDED_BY(taskLock_);  // repeating tasks by the time they are due
  ZrThread timer_ ZR_GUARDED_BY(taskLock_);

  ZrWorkerPool pool_;  // ends before the tables do
};
