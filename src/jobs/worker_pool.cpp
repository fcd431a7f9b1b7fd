#include "jobs/worker_pool.h"

#include <utility>

ZrWorkerPool::~ZrWorkerPool() {
  Workers ended;
  {
    const ZrLock hold(lock_);
    stopping_ = true;
    for (Worker& worker : workers_) worker.wake.NotifyOne();
    // Busy workers find themselves in this list when their bodies have ended.
    ended.swap(workers_);
  }
  for (Worker& worker : ended) worker.thread.Join();
}

void ZrWorkerPool::Run(std::function<void()> body) {
  std::vector<ZrThread> left;  // joined after the lock is given back
  const ZrLock hold(lock_);
  if (!idle_.empty()) {
    const Workers::iterator worker = idle_.back();
    idle_.pop_back();
    worker->body = std::move(body);
    worker->wake.NotifyOne();
    return;
  }
  left.swap(left_);
  const Workers::iterator worker = workers_.emplace(workers_.end());
  worker->body = std::move(body);
  try {
    worker->thread = ZrThread::Start(
        "zr-task", [this, worker] { Loop(worker); });
  } catch (...) {
    workers_.erase(worker);
    throw;
  }
}

void ZrWorkerPool::Loop(Workers::iterator self) {
  for (;;) {
    std::function<void()> body;
    {
      const ZrLock hold(lock_);
      self->wake.Wait(lock_, [&]() ZR_REQUIRES(lock_) { return stopping_ || self->body; });
      body.swap(self->body);
    }
    if (!body) return;
    body();
    body = nullptr;
    const ZrLock hold(lock_);
    if (stopping_) return;
    // Its low priority stays with a thread: the next body, and the programs that it starts, must
    // not have it.
    if (idle_.size() == kKeptThreads || zr::YieldsToOthers()) {
      left_.push_back(std::move(self->thread));
      workers_.erase(self);
      return;
    }
    idle_.push_back(self);
  }
}
