#include "jobs/scheduler.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <string>
#include <utility>

#include "base/exception.h"
#include "base/line_writer.h"
#include "jobs/scheduled_task.h"
#include "platform/clock.h"

// The life of a task: ready -> running -> idle with its result, from where a repeating one goes
// through waiting back to ready. Every step is made under taskLock_ by the thread that causes it.

namespace {

using Record = ZrRinvalJobParametersAndResult;

std::uint64_t NextTaskId() {
  static std::atomic<std::uint64_t> last{0};
  return ++last;
}

// The time a repeating task is due. A task without a delay would otherwise fill a core.
constexpr std::uint64_t kShortestDelayUs = 1000;
constexpr std::uint64_t kLongestDelayUs = 1'000'000'000'000'000;  // 31 years, stands for "never"

std::uint64_t RepeatDelayUs(const ZrRinvalTaskDescription& description) {
  if (description.repeatDelayMs > kLongestDelayUs / 1000) return kLongestDelayUs;
  const std::uint64_t us = description.repeatDelayMs * 1000;
  if (description.repeatDelayUs > kLongestDelayUs - us) return kLongestDelayUs;
  return us + description.repeatDelayUs;
}

void ReportFailure(const ZrRinvalTaskDescription& description, const std::string& failure) {
  const std::string task = "task \"" + description.name + "\"";
  zr::WriteDiagnostic(task, task + ": " + failure);
}

}  // namespace

ZrRinvalScheduler2::ZrRinvalScheduler2() = default;

std::uint64_t ZrRinvalScheduler2::Submit(TaskFunction function, std::unique_ptr<Record> record,
                                         const ZrRinvalTaskDescription& description) {
  if (!record) {
    record = std::make_unique<Record>();
    record->status = 1;
    record->kind = description.kind;
  }
  auto task = std::make_unique<Task>();
  const std::uint64_t id = NextTaskId();
  record->jobId = id;
  task->id = id;
  task->function = std::move(function);
  task->description = description;
  task->record = std::move(record);

  const ZrLock hold(taskLock_);
  Task& entered = *task;
  tasks_.emplace(id, std::move(task));
  if (stopping_) {
    EndUnrun(entered);
    return id;
  }
  try {
    if (description.kind == Record::kRepeat) StartTimer();
  } catch (const std::exception& e) {
    ReportFailure(description, e.what());
    entered.description.kind = 0;
    EndUnrun(entered);
    return id;
  }
  ready_.push_back(&entered);
  Dispatch();
  return id;
}

void ZrRinvalScheduler2::Dispatch() {
  for (auto next = ready_.begin(); next != ready_.end();) {
    Task& task = **next;
    if ((task.description.mask & claimedMask_) != 0) {
      ++next;
      continue;
    }
    next = ready_.erase(next);
    try {
      pool_.Run([this, &task] { Run(task); });
    } catch (const std::exception& e) {
      if (task.lastRun.jobId != 0) {
        RequeueLater(task);
        continue;
      }
      // Written under the lock, as an exception: this line comes once in a machine's bad day.
      ReportFailure(task.description, e.what());
      task.description.kind = 0;
      EndUnrun(task);
      continue;
    }
    claimedMask_ |= task.description.mask;
    task.stage = Task::Stage::kRunning;
    ++running_;
  }
}

void ZrRinvalScheduler2::EndUnrun(Task& task) {
  task.stage = Task::Stage::kIdle;
  task.done = true;
  ended_.NotifyAll();
}

void ZrRinvalScheduler2::Run(Task& task) noexcept {
  Record* result = nullptr;
  std::string failure;
  try {
    result = task.function(task.record.get());
    if (!result) throw ZrException("irregular return condition (nullptr) for a task", 199, "src");
  } catch (const std::exception& e) {
    failure = e.what();
  } catch (...) {
    failure = "unknown exception";
  }
  if (!result) ReportFailure(task.description, failure);

  // Released after the lock: records are the submitter's classes.
  std::unique_ptr<Record> replaced;
  const ZrLock hold(taskLock_);
  // The stop action may use what the submitter releases once the task is done.
  ended_.Wait(taskLock_, [&task] { return !task.inStopAction; });
  --running_;
  claimedMask_ &= ~task.description.mask;
  Collect(task, result, replaced);
  if (!stopping_) Dispatch();
  ended_.NotifyAll();
}

void ZrRinvalScheduler2::Collect(Task& task, Record* result, std::unique_ptr<Record>& replaced) {
  task.stage = Task::Stage::kIdle;
  task.done = true;
  task.finished = result != nullptr;
  // One that a run has returned before and nobody has fetched is kept.
  if (!result || result != task.result.get()) replaced = std::move(task.result);
  if (!result) {
    task.description.kind = 0;
    return;
  }
  result->jobId = task.id;
  task.lastRun.Assign(*result);
  task.lastRun.kind = result->kind;
  task.description.kind = result->kind;
  if (result != task.record.get() && result != task.result.get()) task.result.reset(result);
  if (result->kind == Record::kRepeat && !task.cancelled && !stopping_) RequeueLater(task);
}

void ZrRinvalScheduler2::RequeueLater(Task& task) {
  const std::uint64_t delayUs = RepeatDelayUs(task.description);
  task.description.nextDue =
      ZrClock::System().SystemTicks() + static_cast<std::int64_t>(delayUs) * 10;
  // Measured by the steady clock: setting the machine's clock moves no task.
  const auto due = Clock::now() + std::chrono::microseconds(std::max(delayUs, kShortestDelayUs));
  try {
    StartTimer();
    task.place = waiting_.emplace(due, &task);
  } catch (const std::exception& e) {
    ReportFailure(task.description, e.what());
    task.description.kind = 0;  // nothing would run it again; what a former run returned stands
    return EndUnrun(task);
  }
  task.stage = Task::Stage::kWaiting;
  if (task.place == waiting_.begin()) timerWake_.NotifyOne();
}

void ZrRinvalScheduler2::StartTimer() {
  if (!timer_.Joinable())
    timer_ = ZrThread::Start(
        "zr-timer", [this] { TimerLoop(); });
}

void ZrRinvalScheduler2::TimerLoop() {
  const ZrLock hold(taskLock_);
  while (!stopping_) {
    if (waiting_.empty()) {
      timerWake_.Wait(taskLock_,
                      [this]() ZR_REQUIRES(taskLock_) { return stopping_ || !waiting_.empty(); });
      continue;
    }
    const Clock::time_point due = waiting_.begin()->first;
    timerWake_.WaitUntil(taskLock_, due, [this, due]() ZR_REQUIRES(taskLock_) {
      return stopping_ || waiting_.empty() || waiting_.begin()->first != due;
    });
    const Clock::time_point now = Clock::now();
    while (!waiting_.empty() && waiting_.begin()->first <= now) {
      Task& task = *waiting_.begin()->second;
      waiting_.erase(waiting_.begin());
      task.stage = Task::Stage::kReady;
      ready_.push_back(&task);
    }
    if (!stopping_) Dispatch();
  }
}

bool ZrRinvalScheduler2::IsDoneLocked(std::uint64_t id) const {
  const auto found = tasks_.find(id);
  if (found == tasks_.end()) return true;
  const Task& task = *found->second;
  return task.done && (!task.cancelled || task.stage == Task::Stage::kIdle);
}

bool ZrRinvalScheduler2::IsDone(std::uint64_t id) const {
  const ZrLock hold(taskLock_);
  return IsDoneLocked(id);
}

std::unique_ptr<Record> ZrRinvalScheduler2::FetchResult(std::uint64_t id) {
  std::unique_ptr<Task> forgotten;  // released after the lock: it holds the submitter's objects
  const ZrLock hold(taskLock_);
  const auto found = tasks_.find(id);
  if (found == tasks_.end() || !IsDoneLocked(id)) return nullptr;
  Task& task = *found->second;
  const bool finished = std::exchange(task.finished, false);
  std::unique_ptr<Record> result = std::move(task.result);
  const bool ended = task.cancelled || (stopping_ && task.stage == Task::Stage::kIdle);
  const bool goesOn = task.description.kind == Record::kRepeat && !ended;
  if (goesOn) {
    task.done = false;
    if (finished && !result) result = std::make_unique<Record>(task.lastRun);
    return result;
  }
  if (finished && !result) result = std::move(task.record);
  forgotten = std::move(found->second);
  tasks_.erase(found);
  ended_.NotifyAll();
  return result;
}

void ZrRinvalScheduler2::Cancel(std::uint64_t id) {
  const ZrLock hold(taskLock_);
  const auto found = tasks_.find(id);
  if (found == tasks_.end()) return;
  Task& task = *found->second;
  task.cancelled = true;
  if (task.stage == Task::Stage::kWaiting) waiting_.erase(task.place);
  if (task.stage == Task::Stage::kReady) ready_.remove(&task);
  if (task.stage != Task::Stage::kRunning) EndUnrun(task);
}
