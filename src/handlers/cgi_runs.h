#pragma once
// Where the runs of programs happen: on scheduler tasks of their own, so that no server's work
// queue waits for one; a bounded number at once, the others in order of arrival. A run whose peer
// goes while it waits is dropped with all that it holds.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <thread>
#include <vector>

#include "http/peer_watch.h"
#include "jobs/scheduler.h"
#include "platform/pipe.h"
#include "platform/sync.h"

namespace zr {

/// So many runs per processor core happen at once: programs mostly wait, for each other or a disk.
inline constexpr std::size_t kCgiRunsPerCore = 4;
/// So many more may last long beside them, as answers to slow readers do, or those without an end.
inline constexpr std::size_t kLongCgiRuns = 256;
inline std::size_t DefaultCgiRuns() {
  return kCgiRunsPerCore * std::max<std::size_t>(1, std::thread::hardware_concurrency());
}

}  // namespace zr

/// A queue of runs with a bounded number of workers. Threads: any.
class ZrCgiRuns {
 public:
  /// One run: starts a program, waits for its end and sends the answer. Every submitted run is
  /// called once, unless its peer goes before its turn comes: then it is destroyed, on the thread
  /// that found out. One that finds the flag raised starts nothing and only sends its answer, one
  /// that is surprised by the flag returns within two seconds. What it throws is dropped.
  using Run = std::function<void(const ZrWakeFlag& stop)>;

  /// The scheduler outlives this object. Throws std::system_error when the system has no descriptor
  /// for the stop flag.
  explicit ZrCgiRuns(ZrRinvalScheduler2& scheduler, std::size_t most = zr::DefaultCgiRuns());
  /// Stops.
  ~ZrCgiRuns();
  ZrCgiRuns(const ZrCgiRuns&) = delete;
  ZrCgiRuns& operator=(const ZrCgiRuns&) = delete;

  /// Has the run happen as soon as fewer than the allowed number happen, on another thread unless
  /// the system has none left. The peer, where there is one, is whom it is done for.
  void Submit(Run run, std::shared_ptr<ZrPeerWatch> peer = nullptr);
  /// For a run, on its own thread: it will last, and another one may have its turn beside it. Does
  /// nothing when too many have said so.
  void StepAside();
  /// Raises the flag for all runs, those to come included, and waits for the end of those that are
  /// there. Not called by a run. May be called again.
  void Stop();

 private:
  struct Waiting {
    Run run;
    ZrPeerSubscription peer;
  };
  // Shared with the watches of the peers, which may report while this object goes.
  struct Queue {
    /// Destroys the run in that place if it still waits.
    void Drop(std::uint64_t place) ZR_EXCLUDES(lock);

    ZrMutex lock;       // guards what follows; never held while calling out
    ZrCondition ended;  // workers and aside became 0
    std::uint64_t last ZR_GUARDED_BY(lock) = 0;
    std::map<std::uint64_t, Waiting> waiting ZR_GUARDED_BY(lock);  // by place, in order of arrival
    std::size_t workers ZR_GUARDED_BY(lock) = 0;           // each is a task and takes run after run
    std::size_t aside ZR_GUARDED_BY(lock) = 0;             // were workers until they stepped aside
    std::vector<std::uint64_t> tasks ZR_GUARDED_BY(lock);  // not yet fetched
  };

  static void NoteEnd(Queue& queue) ZR_REQUIRES(queue.lock);
  void StartWorker(bool orHere);
  void Work();
  void FetchTasks(bool all);

  ZrRinvalScheduler2& scheduler_;
  const std::size_t most_;
  ZrWakeFlag stop_;
  const std::shared_ptr<Queue> queue_ = std::make_shared<Queue>();
};
