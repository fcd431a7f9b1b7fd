#include <utility>
#include <vector>

#include "jobs/scheduled_task.h"
#include "jobs/scheduler.h"

// Waiting for tasks, and the stop.

void ZrRinvalScheduler2::WaitDone(std::uint64_t id) const {
  const ZrLock hold(taskLock_);
  ++waiters_;
  ended_.Wait(taskLock_, [this, id]() ZR_REQUIRES(taskLock_) { return IsDoneLocked(id); });
  if (--waiters_ == 0) ended_.NotifyAll();
}

bool ZrRinvalScheduler2::WaitDoneFor(std::uint64_t id, std::chrono::nanoseconds limit) const {
  const ZrLock hold(taskLock_);
  ++waiters_;
  const bool done = ended_.WaitFor(
      taskLock_, limit, [this, id]() ZR_REQUIRES(taskLock_) { return IsDoneLocked(id); });
  if (--waiters_ == 0) ended_.NotifyAll();
  return done;
}

void ZrRinvalScheduler2::Stop() {
  ZrThread timer;
  std::vector<std::uint64_t> running;
  {
    const ZrLock hold(taskLock_);
    stopping_ = true;
    timer = std::move(timer_);
    timerWake_.NotifyOne();
    for (Task* const task : ready_) EndUnrun(*task);
    for (const auto& [due, task] : waiting_) EndUnrun(*task);
    ready_.clear();
    waiting_.clear();
    for (const auto& [id, task] : tasks_)
      if (task->stage == Task::Stage::kRunning && !task->stopCalled) running.push_back(id);
  }
  for (const std::uint64_t id : running) CallStopAction(id);
  timer.Join();
  const ZrLock hold(taskLock_);
  ended_.Wait(taskLock_, [this]() ZR_REQUIRES(taskLock_) { return running_ == 0; });
}

void ZrRinvalScheduler2::CallStopAction(std::uint64_t id) {
  const std::function<void()>* action = nullptr;
  Task* task = nullptr;
  {
    const ZrLock hold(taskLock_);
    const auto found = tasks_.find(id);
    if (found == tasks_.end()) return;
    task = found->second.get();
    if (task->stage != Task::Stage::kRunning || task->stopCalled) return;
    task->stopCalled = true;
    task->inStopAction = true;
    action = &task->description.stopAction;
  }
  try {
    if (*action) (*action)();
  } catch (...) {
    // The run has to end by itself then.
  }
  const ZrLock hold(taskLock_);
  task->inStopAction = false;
  ended_.NotifyAll();
}

ZrRinvalScheduler2::~ZrRinvalScheduler2() {
  Stop();
  const ZrLock hold(taskLock_);
  ended_.Wait(taskLock_, [this]() ZR_REQUIRES(taskLock_) { return waiters_ == 0; });
}
