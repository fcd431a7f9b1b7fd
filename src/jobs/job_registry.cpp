#include "jobs/job_registry.h"

#include <algorithm>
#include <exception>
#include <utility>
#include <vector>

#include "jobs/job.h"
#include "jobs/job_link.h"
#include "jobs/named_id_source.h"

// Joined tasks. Members and tasks stand in chains of Membership records, so that joining, leaving
// and the end of a job cost no search among the other jobs of the process. Whether a job is in a
// task is found by walking the two chains in step, which ends with the shorter one: tasks have a
// handful of members, jobs that own many tasks are in small ones.

namespace {

ZrNamedIdSource& TaskNames() {
  static ZrNamedIdSource source("joinedtask");
  return source;
}

// The chains are doubly linked; Next and Previous name the pointers of one of the two.
template <auto Next, auto Previous, class Node>
void PushFront(Node*& head, Node* node) {
  node->*Next = head;
  if (head) head->*Previous = node;
  head = node;
}

template <auto Next, auto Previous, class Node>
void Unlink(Node*& head, Node* node) {
  if (node->*Next) (node->*Next)->*Previous = node->*Previous;
  if (node->*Previous) {
    (node->*Previous)->*Next = node->*Next;
  } else {
    head = node->*Next;
  }
}

template <class Membership, class Task>
Membership* Find(Membership* ofTask, const Task& task, Membership* ofJob, const ZrJobLink& job) {
  for (; ofTask && ofJob; ofTask = ofTask->nextOfTask, ofJob = ofJob->nextOfJob) {
    if (ofTask->job == &job) return ofTask;
    if (ofJob->task == &task) return ofJob;
  }
  return nullptr;
}

}  // namespace

ZrJobRegistry::ZrJobRegistry() = default;

void ZrJobRegistry::AddMember(Task& task, ZrJob& job) {
  if (!job.link_) job.link_ = std::make_shared<ZrJobLink>(&job);
  ZrJobLink& link = *job.link_;
  if (Find(task.members, task, link.memberships, link)) return;
  auto member = std::make_unique<Membership>(Membership{&link, &task});
  if (!link.memberships) jobs_.emplace(job.jobName_, job.link_);
  PushFront<&Membership::nextOfJob, &Membership::previousOfJob>(link.memberships, member.get());
  PushFront<&Membership::nextOfTask, &Membership::previousOfTask>(task.members, member.release());
  ++task.memberCount;
}

void ZrJobRegistry::RemoveMember(Membership* member) {
  ZrJobLink& link = *member->job;
  Unlink<&Membership::nextOfJob, &Membership::previousOfJob>(link.memberships, member);
  Unlink<&Membership::nextOfTask, &Membership::previousOfTask>(member->task->members, member);
  --member->task->memberCount;
  delete member;
  if (!link.memberships) jobs_.erase(link.job->jobName_);
}

void ZrJobRegistry::TellLastMember(const Task& task, const char* text) {
  if (stopping_) return;
  try {
    ZrJobLink& last = *task.members->job;
    std::list<Entry> entry(1);
    entry.front().target = last.job->link_;
    entry.front().event.jobName = last.job->jobName_;
    entry.front().event.text = text;
    entry.front().event.code = kZrEventLastMember;
    Queue(entry, false);
  } catch (const std::exception&) {
    // Without memory the notice is lost: whoever leaves has left all the same.
  }
}

std::string ZrJobRegistry::Create(ZrJob& owner, std::string_view text) {
  auto task = std::make_unique<Task>();
  task->name = TaskNames().MakeName();
  task->text = text;
  task->ownerName = owner.jobName_;
  std::string name = task->name;
  const ZrLock hold(lock_);
  if (owner.link_ && !owner.link_->job) return {};
  StartDelivery();
  Task& entered = *task;
  const auto place = tasks_.emplace(entered.name, std::move(task)).first;
  try {
    AddMember(entered, owner);
  } catch (...) {
    tasks_.erase(place);  // nobody would ever leave it
    throw;
  }
  return name;
}

bool ZrJobRegistry::Join(std::string_view task, ZrJob& job) {
  const ZrLock hold(lock_);
  const auto found = tasks_.find(task);
  if (found == tasks_.end() || (job.link_ && !job.link_->job)) return false;
  AddMember(*found->second, job);
  return true;
}

bool ZrJobRegistry::Leave(std::string_view task, std::string_view jobName) {
  const ZrLock hold(lock_);
  const auto found = tasks_.find(task);
  if (found == tasks_.end()) return false;
  Task& left = *found->second;
  if (jobName == left.ownerName) {
    while (left.members) RemoveMember(left.members);
    tasks_.erase(found);
    return true;
  }
  const auto job = jobs_.find(jobName);
  if (job == jobs_.end()) return false;
  Membership* const member = Find(left.members, left, job->second->memberships, *job->second);
  if (!member) return false;
  RemoveMember(member);
  if (left.memberCount == 1) TellLastMember(left, "kommt später");
  if (left.memberCount == 0) tasks_.erase(found);
  return true;
}

void ZrJobRegistry::LeaveAllOf(ZrJobLink& job) {
  std::vector<Task*> tasks;
  for (const Membership* m = job.memberships; m; m = m->nextOfJob) tasks.push_back(m->task);
  // The notices go out in the order of the tasks' names.
  std::sort(tasks.begin(), tasks.end(),
            [](const Task* a, const Task* b) { return a->name < b->name; });
  while (job.memberships) RemoveMember(job.memberships);
  for (Task* const task : tasks) {
    if (task->memberCount == 1) TellLastMember(*task, "kommt später A");
    if (task->memberCount == 0) tasks_.erase(task->name);
  }
}

bool ZrJobRegistry::LeaveAll(std::string_view jobName) {
  const ZrLock hold(lock_);
  const auto found = jobs_.find(jobName);
  if (found == jobs_.end()) return false;
  LeaveAllOf(*Link(found->second));
  return true;
}

void ZrJobRegistry::Retire(ZrJob& job) noexcept {
  std::list<Entry> dropped;
  const Link link = job.link_;
  const ZrLock hold(lock_);
  if (link->job) LeaveAllOf(*link);
  link->job = nullptr;
  dropped.swap(link->backlog);
  link->parked = false;
  link->pending -= dropped.size();
  events_ -= dropped.size();
  if (!link->delivering || IsDeliveredHere(*link)) return;
  ++link->retiring;
  delivered_.Wait(lock_, [&link] { return !link->delivering; });
  --link->retiring;
}

std::optional<std::string> ZrJobRegistry::TaskText(std::string_view task) const {
  const ZrLock hold(lock_);
  const auto found = tasks_.find(task);
  if (found == tasks_.end()) return std::nullopt;
  return found->second->text;
}

ZrJobRegistry::Counts ZrJobRegistry::Count() const {
  const ZrLock hold(lock_);
  return {jobs_.size(), tasks_.size(), events_};
}

void ZrJobRegistry::ReleaseTables() {
  const ZrLock hold(lock_);
  for (const auto& [name, task] : tasks_) {
    while (task->members) RemoveMember(task->members);
  }
  // Moved from, tables keep no memory; cleared, they would.
  const auto tasks = std::move(tasks_);
  const auto jobs = std::move(jobs_);
  const auto queue = std::move(queue_);
}
