#pragma once
// Where the runs of programs happen: on scheduler tasks of their own, so that no server's work
// queue waits for one; a bounded number at once, the others in order of arrival.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <thread>
#include <vector>

#include "jobs/scheduler.h"
#include "platform/pipe.h"
#include "platform/sync.h"

namespace zr {

/// So many runs per processor core happen at once: programs mostly wait, for each other or a disk.
inline constexpr std::size_t kCgiRunsPerCore = 4;
inline std::size_t DefaultCgiRuns() {
  return kCgiRunsPerCore * std::max<std::size_t>(1, std::thread::hardware_concurrency());
}

}  // namespace zr

/// A queue of runs with a bounded number of workers. Threads: any.
class ZrCgiRuns {
 public:
  /// One run: starts a program, waits for its end and sends the answer. Every submitted run is
  /// called once; one that finds the flag raised starts nothing and only sends its answer, one that
  /// is surprised by the flag returns within two seconds. What it throws is dropped.
  using Run = std::function<void(const ZrWakeFlag& stop)>;

  /// The scheduler outlives this object. Throws std::system_error when the system has no descriptor
  /// for the stop flag.
  explicit ZrCgiRuns(ZrRinvalScheduler2& scheduler, std::size_t most = zr::DefaultCgiRuns());
  /// Stops.
  ~ZrCgiRuns();
  ZrCgiRuns(const ZrCgiRuns&) = delete;
  ZrCgiRuns& operator=(const ZrCgiRuns&) = delete;

  /// Has the run happen as soon as fewer than the allowed number happen, on another thread unless
  /// the system has none left.
  void Submit(Run run) ZR_EXCLUDES(lock_);
  /// Raises the flag for all runs, those to come included, and waits for the end of those that are
  /// there. Not called by a run. May be called again.
  void Stop() ZR_EXCLUDES(lock_);

 private:
  void StartWorker() ZR_EXCLUDES(lock_);
  void Work() ZR_EXCLUDES(lock_);
  void FetchTasks(bool all) ZR_EXCLUDES(lock_);

  ZrRinvalScheduler2& scheduler_;
  const std::size_t most_;
  ZrWakeFlag stop_;

  ZrMutex lock_;       // guards what follows; never held while calling out
  ZrCondition ended_;  // workers_ became 0
  std::deque<Run> waiting_ ZR_GUARDED_BY(lock_);
  std::size_t workers_ ZR_GUARDED_BY(lock_) = 0;  // each happens on a task and takes run after run
  std::vector<std::uint64_t> tasks_ ZR_GUARDED_BY(lock_);  // not yet fetched
};
