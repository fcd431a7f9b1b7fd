#include "embed/handler_pool.h"

#include <algorithm>
#include <system_error>
#include <utility>

#include "base/batch.h"

namespace {

/// The pool whose thread this is.
thread_local const ZrHandlerPool* pool = nullptr;

}  // namespace

ZrHandlerPool::ZrHandlerPool(std::size_t mostThreads, std::chrono::nanoseconds limit)
    : mostThreads_(mostThreads), limit_(limit) {}

ZrHandlerPool::Caller::Caller(const ZrHandlerPool& of) noexcept
    : outer_(std::exchange(pool, &of)) {}

ZrHandlerPool::Caller::~Caller() { pool = outer_; }

bool ZrHandlerPool::IsCaller() const noexcept { return pool == this; }

/// The wake-ups of a batch, at its end: a thread that was woken by its first task would only
/// contend with the rest of it for the lock.
struct ZrHandlerPool::Wakeup {
  ~Wakeup() { Clear(); }
  void Clear() {
    if (const Task task = std::exchange(kept, {})) of->Wake();
  }
  ZrHandlerPool* of = nullptr;
  Task kept;  // one of its tasks, each of which keeps the pool
};

bool ZrHandlerPool::Submit(const Task& task) {
  ZrBatch* const batch = ZrBatch::Current();
  Wakeup* const wakeup = batch == nullptr ? nullptr : &batch->Of<Wakeup>(this);
  if (!Enter(task)) return false;
  if (wakeup == nullptr) {
    Wake();
  } else {
    wakeup->of = this;
    wakeup->kept = task;
  }
  return true;
}

void ZrHandlerPool::Wake() {
  std::size_t threads = 0;
  {
    ZrLock hold(lock_);
    threads = std::min(idle_, queue_.size());
  }
  for (; threads > 0; --threads) wake_.NotifyOne();
}

bool ZrHandlerPool::Enter(const Task& task) {
  ZrLock hold(lock_);
  if (closing_) return false;
  queue_.push_back(task);
  if (!HaveThread()) {
    queue_.pop_back();
    return false;
  }
  task->due_ = Clock::now() + limit_;
  task->place_ = open_.insert(open_.end(), task);
  if (std::exchange(watchRests_, false)) watchWake_.NotifyOne();
  return true;
}

// No: there is none, and none to be had.
bool ZrHandlerPool::HaveThread() {
  try {
    if (limit_.count() > 0 && !watch_.Joinable())
      watch_ = ZrThread::Start("late answers", [this] { Watch(); });
    if (idle_ < queue_.size() && threads_.size() < mostThreads_)
      threads_.push_back(ZrThread::Start("handler", [this] { Loop(); }));
  } catch (const std::system_error&) {
    // Those that are there take their turn.
  }
  return !threads_.empty();
}

void ZrHandlerPool::Done(ZrHandlerTask& task) {
  Task gone;  // let go without the lock
  ZrLock hold(lock_);
  gone = std::move(*task.place_);
  open_.erase(task.place_);
  if (closing_ && open_.empty()) allDone_.NotifyAll();
}

void ZrHandlerPool::Loop() {
  pool = this;
  while (const Task task = Next()) task->Run();
}

ZrHandlerPool::Task ZrHandlerPool::Next() {
  ZrLock hold(lock_);
  ++idle_;
  wake_.Wait(lock_, [this]() ZR_REQUIRES(lock_) { return closing_ || !queue_.empty(); });
  --idle_;
  if (queue_.empty()) return nullptr;
  Task task = std::move(queue_.front());
  queue_.pop_front();
  return task;
}

std::vector<ZrHandlerPool::Task> ZrHandlerPool::TakeLate(Clock::time_point& next) {
  std::vector<Task> late;
  const Clock::time_point now = Clock::now();
  next = Clock::time_point::max();
  for (const Task& task : open_) {
    if (task->late_) continue;  // it is being answered
    next = task->due_;
    if (next > now) break;
    task->late_ = true;
    late.push_back(task);
    next = Clock::time_point::max();
  }
  return late;
}

void ZrHandlerPool::Watch() {
  for (;;) {
    std::vector<Task> late;
    {
      ZrLock hold(lock_);
      if (closing_) return;
      Clock::time_point next;
      late = TakeLate(next);
      if (late.empty() && next == Clock::time_point::max()) {
        watchRests_ = true;
        watchWake_.Wait(lock_, [this]() ZR_REQUIRES(lock_) { return closing_ || !watchRests_; });
      } else if (late.empty()) {
        watchWake_.WaitUntil(
            lock_, next, [this]() ZR_REQUIRES(lock_) { return closing_; });
      }
    }
    for (const Task& task : late) task->GiveUp();
  }
}

bool ZrHandlerPool::IsClosing() {
  ZrLock hold(lock_);
  return closing_;
}

void ZrHandlerPool::Close() {
  std::deque<Task> unrun;
  ZrThread watch;
  std::vector<ZrThread> threads;
  std::vector<Task> open;
  {
    ZrLock hold(lock_);
    closing_ = true;
    unrun.swap(queue_);
    watch = std::move(watch_);
    threads.swap(threads_);
    open.assign(open_.begin(), open_.end());
    wake_.NotifyAll();
    watchWake_.NotifyAll();
  }
  watch.Join();
  for (const Task& task : open) task->GiveUp();
  {
    ZrLock hold(lock_);
    allDone_.Wait(lock_, [this]() ZR_REQUIRES(lock_) { return open_.empty(); });
  }
  for (ZrThread& thread : threads) thread.Join();
}
