#pragma once
// The base of every active object: message heads, connections, servers, request handlers and the
// transceiver. A job has a unique name, a recursive lock that guards its state, a small numbered
// state with an approval hook, and a place in the job registry, through which jobs group
// themselves into joined tasks and send each other events by name.
//
// Lifetime. Events reach a job on other threads, so a job has to be out of their reach before its
// most derived destructor starts; the base destructor would be too late. Retire() is that barrier:
// - Jobs in shared ownership are made with zr::MakeJob<T>(), whose pointer retires the job before
//   it deletes it. When the last pointer is dropped by a thread that is delivering an event, in
//   this job's own ReceiveEvent or in any other, a thread of the registry (the reaper) ends the
//   job instead, so that no destructor ever waits on a delivering thread.
// - A job that is a member of another object, or stands on the stack, belongs to a final class and
//   calls Retire() as the first act of its destructor. It is not destroyed by a ReceiveEvent.

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "base/workbench.h"
#include "jobs/job_event.h"
#include "jobs/job_lock.h"
#include "platform/sync.h"

/// Base of all jobs. Threads: any; the virtual operations may be called from any thread.
class ZrJob {
 public:
  /// The job is not in the registry until it creates or joins a joined task.
  ZrJob() = default;
  ZrJob(const ZrJob&) = delete;
  ZrJob& operator=(const ZrJob&) = delete;

  /// Called with every event sent to this job, one at a time and in the order of sending, with the
  /// job's lock held. Exceptions are dropped by the caller; the event counts as delivered. Must not
  /// wait for another event. The base does nothing and answers yes.
  virtual bool ReceiveEvent(const ZrJobEvent& event) ZR_REQUIRES(lock_);
  /// Sends an event to the job of that name. The base sends nothing and answers no.
  virtual bool PostEvent(std::string_view target, ZrJobEvent event);
  /// Makes a joined task owned by this job, its first member; returns the task's name. A retired
  /// job gets an empty name.
  virtual std::string CreateJoinedTask(std::string_view text);
  /// Leaves a joined task; its owner closes it for all members. No when this job is no member.
  virtual bool LeaveJoinedTask(std::string_view task);
  /// Leaves every joined task, owned ones like others. No when there was none.
  virtual bool LeaveAllJoinedTasks();
  /// Retires the job, should its owner not have done so.
  virtual ~ZrJob();
  /// Asks for a state: no when it is the current or the last requested one. Otherwise the state
  /// guard decides; its answer is returned, and the request stays noted either way.
  virtual bool SetState(std::uint32_t state);
  /// Joins a joined task and remembers its name, also when there is no such task (answer no).
  virtual bool Attach(std::string_view task) ZR_EXCLUDES(stateLock_);
  /// Leaves the joined task; an empty name means the remembered one, which is forgotten then.
  virtual bool Detach(std::string_view task) ZR_EXCLUDES(stateLock_);
  /// Second entry to CreateJoinedTask().
  virtual std::string CreateJoinedTaskFor(std::string_view text);
  /// The name remembered by Attach(), empty when there is none.
  virtual std::string AttachedTask() const ZR_EXCLUDES(stateLock_);

  /// The job's name; constant for its life. It is taken from the job source and written when it is
  /// first asked for: most message heads live and die without.
  const std::string& JobName() const;
  /// The name that stands for "no name" where an operation created or sent nothing. One per
  /// process, in the format of job names.
  static std::string CommonErrorName();

  /// The last approved state, 0 at first.
  std::uint32_t State() const noexcept { return state_.load(); }
  /// The last state asked for, approved or not.
  std::uint32_t RequestedState() const noexcept { return requestedState_.load(); }
  /// Sets who approves states; by default all are. Called without a lock of the job's. Set it
  /// before other threads know the job.
  void SetStateGuard(std::function<bool()> guard) { stateGuard_ = std::move(guard); }

  /// The job's own lock. Order: job locks before all others, the registry's last.
  ZrJobLock& Lock() const ZR_RETURN_CAPABILITY(lock_) { return lock_; }

  /// Takes the job out of the registry: leaves all joined tasks (remaining last members are told),
  /// drops events on their way to it and waits for a delivery that is running. Afterwards no event
  /// arrives and the job joins nothing any more. The caller holds no lock that a ReceiveEvent of
  /// this job takes. Calling it again does nothing. Cheap for a job that never joined.
  void Retire() noexcept;
  /// Ends a job made with `new` that is in nobody's hands any more: retires and deletes it, here
  /// or, on a thread that is delivering an event, on the registry's reaper thread.
  static void End(ZrJob* job) noexcept;

 protected:
  mutable ZrJobLock lock_;  ///< guards the state of derived classes; held during ReceiveEvent()

 private:
  friend class ZrJobRegistry;
  static constexpr std::int64_t kNoTask = -1;
  static constexpr std::int64_t kNoNumber = -1;

  /// Taken from the job source when it is first asked for, as the name is.
  std::int64_t Number() const;

  mutable std::atomic<std::int64_t> jobNumber_{kNoNumber};
  mutable std::atomic<const std::string*> jobName_{nullptr};  // the number's name once it was asked
  std::function<bool()> stateGuard_;                          // empty approves everything

  std::atomic<std::uint32_t> state_{0};
  std::atomic<std::uint32_t> requestedState_{0};
  mutable ZrMutex stateLock_;
  std::int64_t attachedTask_ ZR_GUARDED_BY(stateLock_) = kNoTask;  // by number where it has one
  std::string attachedName_ ZR_GUARDED_BY(stateLock_);             // a name that is no task's

  // The registry's. The link is made, under its lock, when the job first joins a task.
  std::shared_ptr<ZrJobLink> link_;
  ZrJob* nextReaped_ = nullptr;
};

namespace zr {

/// The deleter of jobs in shared ownership, for pointers that are made by hand: ZrJob::End().
inline void EndJob(ZrJob* job) noexcept { ZrJob::End(job); }

/// Makes a job in shared ownership; see the head of this file for how it ends.
template <class Job, class... Args>
std::shared_ptr<Job> MakeJob(Args&&... args) {
  return std::shared_ptr<Job>(new Job(std::forward<Args>(args)...), &EndJob,
                              ZrWorkbenchAllocator<Job>());
}

}  // namespace zr
