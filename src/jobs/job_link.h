#pragma once
// What the registry keeps about a job, apart from the job itself: the queue and the job's lock hold
// on to links, so that an event on its way to a job that has retired meets an empty link instead
// of freed memory. Private to the registry's sources; all members are guarded by its lock.

#include <atomic>
#include <cstddef>
#include <list>
#include <memory>
#include <string>
#include <utility>

#include "jobs/job_event.h"
#include "jobs/job_registry.h"

/// An event on its way.
struct ZrJobRegistry::Entry {
  Link target;
  ZrJobEvent event;
};

/// One job in one joined task; stands in two lists, the job's and the task's, and is owned by both
/// together: RemoveMember() takes it out of both and gives it back.
struct ZrJobRegistry::Membership {
  ZrJobLink* job = nullptr;
  Task* task = nullptr;
  Membership* nextOfJob = nullptr;
  Membership* previousOfJob = nullptr;
  Membership* nextOfTask = nullptr;
  Membership* previousOfTask = nullptr;
};

/// A joined task. The owner is known by number only: it may leave, and go, before the task does.
struct ZrJobRegistry::Task {
  Task(std::int64_t taskNumber, std::int64_t ownerNumber, std::string what)
      : number(taskNumber), owner(ownerNumber), text(std::move(what)) {}

  const std::int64_t number;
  const std::int64_t owner;
  const std::string text;
  Task* nextListed = nullptr;
  Membership* members = nullptr;
  std::atomic<std::size_t> present{0};  // members and guests; goes up without the lock, too
  std::shared_ptr<Task> listed;         // itself, until it has ended
};

/// The registry's end of a job.
struct ZrJobLink {
  ZrJobLink(ZrJob* linked, std::int64_t name) : number(name), job(linked) {}

  const std::int64_t number;  // of the job's name
  ZrJobLink* nextListed = nullptr;
  ZrJob* job;               // null once the job has retired
  bool delivering = false;  // an event is being delivered to the job
  bool parked = false;      // the job was busy; its events gather in `backlog` until it is free
  unsigned retiring = 0;    // threads that wait for the end of the delivery
  std::size_t pending = 0;  // events for the job in the queue and in `backlog`
  std::list<ZrJobRegistry::Entry> backlog;           // older than all its events in the queue
  ZrJobRegistry::Membership* memberships = nullptr;  // empty: the job is not listed
  ZrJobRegistry::Membership first;  // most jobs are in one task: `job` is null while it is free
};
