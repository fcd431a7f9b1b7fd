#include "handlers/cgi_runs.h"

#include <atomic>
#include <exception>
#include <memory>
#include <utility>

namespace {

// Of the worker that this thread is: whether it has stepped aside.
thread_local bool steppedAside = false;

}  // namespace

ZrCgiRuns::ZrCgiRuns(ZrRinvalScheduler2& scheduler, std::size_t most)
    : scheduler_(scheduler), most_(std::max<std::size_t>(1, most)) {}

ZrCgiRuns::~ZrCgiRuns() { Stop(); }

void ZrCgiRuns::Queue::Drop(std::uint64_t place) {
  decltype(waiting)::node_type dropped;  // its request is released without the lock
  ZrLock hold(lock);
  dropped = waiting.extract(place);
}

// The peer is watched before the run has its place, so that its going is either told to the place
// or seen here.
void ZrCgiRuns::Submit(Run run, std::shared_ptr<ZrPeerWatch> peer) {
  Queue& queue = *queue_;
  std::uint64_t place = 0;
  {
    ZrLock hold(queue.lock);
    place = ++queue.last;
  }
  Waiting waits{std::move(run), {peer, [shared = std::weak_ptr(queue_), place] {
                                   if (const auto there = shared.lock()) there->Drop(place);
                                 }}};
  bool starts = false;
  {
    ZrLock hold(queue.lock);
    queue.waiting.emplace(place, std::move(waits));
    starts = queue.workers < most_;
    if (starts) ++queue.workers;
  }
  if (peer && peer->Gone()) queue.Drop(place);
  if (starts) StartWorker(true);
}

// A worker that was counted must work: when the system has no thread or no memory for another one,
// this thread does it, as a request must be answered all the same; unless it has work, and its
// place goes to who comes next.
void ZrCgiRuns::StartWorker(bool orHere) {
  bool unable = true;
  try {
    FetchTasks(false);
    {
      ZrLock hold(queue_->lock);
      queue_->tasks.reserve(queue_->tasks.size() + 1);
    }
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
    unable = scheduler_.IsDone(task) && !*began;
    ZrLock hold(queue_->lock);
    queue_->tasks.push_back(task);
  } catch (const std::exception&) {
    // Nothing was submitted: what follows that does not throw.
  }
  if (!unable) return;
  if (orHere) return Work();
  ZrLock hold(queue_->lock);
  --queue_->workers;
}

void ZrCgiRuns::Work() {
  Queue& queue = *queue_;
  for (;;) {
    decltype(queue.waiting)::node_type next;
    {
      ZrLock hold(queue.lock);
      // Who stepped aside comes back when there is a place.
      const bool back = steppedAside && queue.workers < most_;
      if (std::exchange(steppedAside, false)) {
        --queue.aside;
        if (back) ++queue.workers;
        if (!back) return NoteEnd(queue);
      }
      if (queue.waiting.empty()) {
        --queue.workers;
        return NoteEnd(queue);
      }
      next = queue.waiting.extract(queue.waiting.begin());
    }
    const Run run = std::move(next.mapped().run);
    next = {};
    try {
      run(stop_);
    } catch (...) {
      // The run answers for its own failures; the next one must still have its turn.
    }
  }
}

void ZrCgiRuns::NoteEnd(Queue& queue) {
  if (queue.workers + queue.aside == 0) queue.ended.NotifyAll();
}

void ZrCgiRuns::StepAside() {
  Queue& queue = *queue_;
  bool starts = false;
  {
    ZrLock hold(queue.lock);
    if (steppedAside || queue.aside >= zr::kLongCgiRuns) return;
    steppedAside = true;
    ++queue.aside;
    starts = !queue.waiting.empty();
    if (!starts) --queue.workers;
  }
  if (starts) StartWorker(false);
}

// Forgets tasks that have ended, so that their number stays about that of the workers; or waits for
// all of them.
void ZrCgiRuns::FetchTasks(bool all) {
  std::vector<std::uint64_t> tasks;
  {
    ZrLock hold(queue_->lock);
    tasks.swap(queue_->tasks);
  }
  std::vector<std::uint64_t> running;
  for (const std::uint64_t task : tasks) {
    if (all) scheduler_.WaitDone(task);
    if (scheduler_.IsDone(task))
      scheduler_.FetchResult(task);
    else
      running.push_back(task);
  }
  if (running.empty()) return;
  ZrLock hold(queue_->lock);
  queue_->tasks.insert(queue_->tasks.end(), running.begin(), running.end());
}

void ZrCgiRuns::Stop() {
  Queue& queue = *queue_;
  stop_.Raise();
  {
    ZrLock hold(queue.lock);
    queue.ended.Wait(queue.lock, [&queue]() ZR_REQUIRES(queue.lock) {
      return queue.workers + queue.aside == 0;
    });
  }
  FetchTasks(true);
}
