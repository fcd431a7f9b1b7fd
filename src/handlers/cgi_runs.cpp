#include "handlers/cgi_runs.h"

#include <atomic>
#include <memory>
#include <utility>

ZrCgiRuns::ZrCgiRuns(ZrRinvalScheduler2& scheduler, std::size_t most)
    : scheduler_(scheduler), most_(std::max<std::size_t>(1, most)) {}

ZrCgiRuns::~ZrCgiRuns() { Stop(); }

void ZrCgiRuns::Submit(Run run) {
  {
    ZrLock hold(lock_);
    waiting_.push_back(std::move(run));
    if (workers_ >= most_) return;
    ++workers_;
  }
  StartWorker();
}

void ZrCgiRuns::StartWorker() {
  FetchTasks(false);
  ZrRinvalTaskDescription description;
  description.name = "ZrCgiRuns";
  const auto began = std::make_shared<std::atomic<bool>>(false);
  const std::uint64_t task = scheduler_.Submit(
      [this, began](ZrRinvalJobParametersAndResult* record) {
        *began = true;
        Work();
        return record;
      },
      nullptr, description);
  // Done but never begun: the system has no thread for it. A request must be answered all the same,
  // so this thread does the work.
  const bool unable = scheduler_.IsDone(task) && !*began;
  {
    ZrLock hold(lock_);
    tasks_.push_back(task);
  }
  if (unable) Work();
}

void ZrCgiRuns::Work() {
  for (;;) {
    Run run;
    {
      ZrLock hold(lock_);
      if (waiting_.empty()) {
        if (--workers_ == 0) ended_.NotifyAll();
        return;
      }
      run = std::move(waiting_.front());
      waiting_.pop_front();
    }
    try {
      run(stop_);
    } catch (...) {
      // The run answers for its own failures; the next one must still have its turn.
    }
  }
}

// Forgets tasks that have ended, so that their number stays about that of the workers; or waits for
// all of them.
void ZrCgiRuns::FetchTasks(bool all) {
  std::vector<std::uint64_t> tasks;
  {
    ZrLock hold(lock_);
    tasks.swap(tasks_);
  }
  std::vector<std::uint64_t> running;
  for (const std::uint64_t task : tasks) {
    if (all) scheduler_.WaitDone(task);
    if (scheduler_.IsDone(task)) {
      scheduler_.FetchResult(task);
    } else {
      running.push_back(task);
    }
  }
  if (running.empty()) return;
  ZrLock hold(lock_);
  tasks_.insert(tasks_.end(), running.begin(), running.end());
}

void ZrCgiRuns::Stop() {
  stop_.Raise();
  {
    ZrLock hold(lock_);
    ended_.Wait(lock_, [this]() ZR_REQUIRES(lock_) { return workers_ == 0; });
  }
  FetchTasks(true);
}
