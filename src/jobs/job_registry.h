#pragma once
// The one registry of the process: which jobs belong to which joined tasks, and the events on
// their way to jobs.
//
// A job is listed while it belongs to at least one joined task; only listed jobs receive events.
// Posted events are delivered by one thread, in the order of posting. When the receiver is busy
// (its lock is held), its events wait aside and those of other jobs go on; an event never overtakes
// another one to the same job. Deliver() spares the way over that thread when nothing stands
// before its event.
//
// Joined tasks know their owner by name and jobs are reached through links that Retire() empties,
// so neither can dangle. The delivery thread starts with the first joined task, as no event has a
// receiver before; the reaper, which ends jobs dropped by delivering threads, when it is needed.
// Both are joined when the library is unloaded or the process exits. The registry's memory is never
// given back: a host may exit while its threads go on using it; events sent from then on are
// dropped.

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "jobs/job_event.h"
#include "jobs/number_table.h"
#include "platform/sync.h"
#include "platform/thread.h"

class ZrJob;
class ZrTaskGuest;
class ZrTaskHandle;
struct ZrJobLink;

/// The job registry. Threads: any. Its lock is the last in the lock order; no operation calls out
/// with it held.
class ZrJobRegistry {
 public:
  ZrJobRegistry(const ZrJobRegistry&) = delete;
  ZrJobRegistry& operator=(const ZrJobRegistry&) = delete;

  static ZrJobRegistry& Instance();

  static constexpr std::string_view kJobPrefix = "_job";
  /// Names of joined tasks are numbers in writing; nothing for a text that is none.
  static std::optional<std::int64_t> TaskNumber(std::string_view name);
  static std::string TaskName(std::int64_t number);

  /// Makes a joined task with the owner as its first member; returns its name ("joinedtask*...").
  /// The text says what the task is for. An owner that has retired gets an empty name. Throws
  /// std::system_error when there is no thread for the delivery of events.
  std::string Create(ZrJob& owner, std::string_view text) ZR_EXCLUDES(lock_);
  /// Makes the job a member, also when it is one already. No when there is no such task or the
  /// job has retired.
  bool Join(std::string_view task, ZrJob& job) ZR_EXCLUDES(lock_);
  bool Join(std::int64_t task, ZrJob& job) ZR_EXCLUDES(lock_);
  /// Takes the job of that name out of the task. When it is the task's owner, the task is closed
  /// for all members and nobody is told; when one member stays behind, that one is sent an event
  /// with code 6 and the text "kommt später". No for unknown tasks and for jobs that are no member.
  bool Leave(std::string_view task, std::string_view jobName) ZR_EXCLUDES(lock_);
  bool Leave(std::string_view task, const ZrJob& job) ZR_EXCLUDES(lock_);
  /// Takes the job of that name out of all its tasks, the owner like any member; a member that
  /// stays behind alone is sent an event with code 6 and the text "kommt später A". No when it is
  /// in none.
  bool LeaveAll(std::string_view jobName) ZR_EXCLUDES(lock_);
  bool LeaveAll(const ZrJob& job) ZR_EXCLUDES(lock_);

  /// The joined task of that name; an empty handle when there is none. See task_guest.h.
  ZrTaskHandle Find(std::string_view task) const ZR_EXCLUDES(lock_);

  /// Queues an event for the job of that name; without such a job it is dropped silently. Answers
  /// yes.
  bool Post(std::string_view target, ZrJobEvent event) ZR_EXCLUDES(lock_);
  /// Delivers an event on the calling thread, at once, when no other event for that job is queued
  /// or being delivered, its lock is free, and this thread is not delivering already; otherwise
  /// the same as Post(). The caller holds no lock.
  bool Deliver(std::string_view target, ZrJobEvent event) ZR_EXCLUDES(lock_);
  /// The same for several events to one job, which are delivered in their order and without one of
  /// another sender between them: the receiver is looked up and claimed once for all.
  bool Deliver(std::string_view target, std::span<const ZrJobEvent> events) ZR_EXCLUDES(lock_);
  /// Makes the delivery thread look at its queue now.
  void WakeDelivery() ZR_EXCLUDES(lock_);

  /// The text that the joined task was created with; nothing when there is no such task.
  std::optional<std::string> TaskText(std::string_view task) const ZR_EXCLUDES(lock_);
  /// How much the registry holds at this moment.
  struct Counts {
    std::size_t jobs = 0;    ///< jobs that belong to a joined task
    std::size_t tasks = 0;   ///< joined tasks
    std::size_t events = 0;  ///< events waiting for their delivery
  };
  Counts Count() const ZR_EXCLUDES(lock_);

  /// Returns when every job that was handed to the reaper before this call has been destroyed. For
  /// owners of what jobs refer to, before they release it. Not called by destructors of jobs nor
  /// on a thread that delivers an event, which the reaper may be waiting for.
  void WaitForReaper() ZR_EXCLUDES(lock_);
  /// Ends the registry's threads, and waits for them, while no job belongs to a joined task; the
  /// next one that does brings them back. For the end of what has used jobs, so that a host keeps
  /// no thread of ours. No: there are such jobs. Not called on a thread that delivers an event.
  bool Rest() noexcept ZR_EXCLUDES(lock_);

 private:
  friend class ZrJob;
  friend class ZrJobLock;
  friend class ZrTaskGuest;
  friend class ZrTaskHandle;
  friend struct ZrJobLink;

  struct Task;
  struct Membership;
  struct Entry;
  struct Holder;
  using Link = std::shared_ptr<ZrJobLink>;

  ZrJobRegistry();
  ~ZrJobRegistry() = delete;

  // Joined tasks (job_registry.cpp).
  bool LeaveBy(std::string_view task, std::int64_t job) ZR_EXCLUDES(lock_);
  void AddMember(Task& task, ZrJob& job) ZR_REQUIRES(lock_);
  /// Returns how many stay behind.
  std::size_t RemoveMember(Membership* member) ZR_REQUIRES(lock_);
  void AfterLeaving(Task& task, std::size_t left, const char* text) ZR_REQUIRES(lock_);
  static void Enter(Task& task) noexcept;
  void LeaveAsGuest(Task& task, bool all) noexcept ZR_EXCLUDES(lock_);
  void TellLastMember(const Task& task, const char* text) ZR_REQUIRES(lock_);
  void EndTask(Task& task) ZR_REQUIRES(lock_);
  void LeaveAllOf(ZrJobLink& job) ZR_REQUIRES(lock_);
  void Retire(ZrJob& job) noexcept ZR_EXCLUDES(lock_);
  void ReleaseTables() ZR_EXCLUDES(lock_);

  // Delivery (job_registry_delivery.cpp).
  Link FindTarget(std::string_view target) const ZR_REQUIRES(lock_);
  ZrJob* Claim(const Link& link) ZR_REQUIRES(lock_);
  void Hand(ZrJob& job, const Link& link, std::span<const ZrJobEvent> events) noexcept
      ZR_EXCLUDES(lock_);
  void Park(ZrJobLink& link, std::list<Entry>& entry) ZR_REQUIRES(lock_);
  void Unpark(ZrJobLink& link) noexcept ZR_REQUIRES(lock_);
  void Resume(const Link& link) noexcept ZR_EXCLUDES(lock_);
  void Queue(std::list<Entry>& entry, bool urgent) ZR_REQUIRES(lock_);
  void WakeNow() noexcept ZR_REQUIRES(lock_);
  void StartDelivery() ZR_REQUIRES(lock_);
  void DeliveryLoop(unsigned shift) ZR_EXCLUDES(lock_);
  ZrJob* TakeFront(std::list<Entry>& taken) ZR_REQUIRES(lock_);

  // The reaper and the end (job_registry_end.cpp).
  static bool OnDeliveringThread() noexcept;
  static bool NoteRetiredHere(const ZrJobLink& link) noexcept;
  bool Reap(ZrJob* job) noexcept ZR_EXCLUDES(lock_);
  void ReaperLoop(unsigned shift) ZR_EXCLUDES(lock_);
  bool IsOver(unsigned shift) const ZR_REQUIRES(lock_) { return stopping_ || shift != shift_; }
  bool EndThreads() noexcept ZR_EXCLUDES(lock_);
  void EndReaped(ZrJob* chain) noexcept ZR_EXCLUDES(lock_);
  void Shutdown() noexcept ZR_EXCLUDES(lock_);

  mutable ZrMutex lock_;  // guards all that follows, and the links of all jobs

  // Tasks are owned by their table; jobs stand in theirs with their links, and leave before they
  // go.
  ZrNumberTable<Task> tasks_ ZR_GUARDED_BY(lock_);
  ZrNumberTable<ZrJobLink> jobs_ ZR_GUARDED_BY(lock_);

  ZrCondition wake_;  // queue_ is empty no more, drain_ or stopping_ was set, shift_ changed
  std::list<Entry> queue_ ZR_GUARDED_BY(lock_);
  std::size_t events_ ZR_GUARDED_BY(lock_) = 0;  // in queue_ and parked
  bool drain_ ZR_GUARDED_BY(lock_) = false;      // queue_ is to be emptied without a pause
  bool stopping_ ZR_GUARDED_BY(lock_) = false;
  unsigned shift_ ZR_GUARDED_BY(lock_) = 0;  // of the threads: those of an earlier one end
  ZrThread delivery_ ZR_GUARDED_BY(lock_);
  ZrCondition delivered_;  // a delivery ended whose receiver is retiring

  ZrCondition reap_;                              // reaped_ or stopping_ was set, shift_ changed
  ZrCondition reapedAll_;                         // reapedCount_ grew
  ZrJob* reaped_ ZR_GUARDED_BY(lock_) = nullptr;  // jobs to end, chained, the last one first
  std::size_t handedCount_ ZR_GUARDED_BY(lock_) = 0;  // jobs handed to the reaper so far
  std::size_t reapedCount_ ZR_GUARDED_BY(lock_) = 0;  // jobs it has ended so far
  ZrThread reaper_ ZR_GUARDED_BY(lock_);
};
