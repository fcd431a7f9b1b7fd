#include "jobs/job_registry.h"

#include <algorithm>
#include <exception>
#include <utility>
#include <vector>

#include "jobs/job.h"
#include "jobs/job_link.h"
#include "jobs/named_id_source.h"
#include "jobs/task_guest.h"

// Joined tasks. Members and tasks stand in chains of Membership records, so that joining, leaving
// and the end of a job cost no search among the other jobs of the process. Whether a job is in a
// task is found by walking the two chains in step, which ends with the shorter one: tasks have a
// handful of members, jobs that own many tasks are in small ones.

namespace {

constexpr std::string_view kTaskPrefix = "joinedtask";

// What the last member is told by.
constexpr const char* kLeftText = "kommt später";
constexpr const char* kLeftAllText = "kommt später A";

ZrNamedIdSource& TaskNames() {
  static ZrNamedIdSource source(kTaskPrefix);
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
  if (node->*Previous)
    (node->*Previous)->*Next = node->*Next;
  else
    head = node->*Next;
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

std::optional<std::int64_t> ZrJobRegistry::TaskNumber(std::string_view name) {
  return ZrNamedIdSource::NumberOf(kTaskPrefix, name);
}

std::string ZrJobRegistry::TaskName(std::int64_t number) {
  return ZrNamedIdSource::NameOf(kTaskPrefix, number);
}

void ZrJobRegistry::AddMember(Task& task, ZrJob& job) {
  if (!job.link_) job.link_ = std::make_shared<ZrJobLink>(&job, job.Number());
  ZrJobLink& link = *job.link_;
  if (::Find(task.members, task, link.memberships, link)) return;
  Membership* const member = link.first.job ? new Membership : &link.first;
  try {
    if (!link.memberships) jobs_.Enter(link);
  } catch (...) {
    if (member != &link.first) delete member;
    throw;
  }
  *member = {&link, &task};
  PushFront<&Membership::nextOfJob, &Membership::previousOfJob>(link.memberships, member);
  PushFront<&Membership::nextOfTask, &Membership::previousOfTask>(task.members, member);
  ++task.present;
}

std::size_t ZrJobRegistry::RemoveMember(Membership* member) {
  ZrJobLink& link = *member->job;
  Task& task = *member->task;
  Unlink<&Membership::nextOfJob, &Membership::previousOfJob>(link.memberships, member);
  Unlink<&Membership::nextOfTask, &Membership::previousOfTask>(task.members, member);
  if (member == &link.first)
    member->job = nullptr;
  else
    delete member;
  if (!link.memberships) jobs_.TakeOut(link);
  return --task.present;
}

// Somebody has left who was the last but one, or the last one. With guests coming and going without
// the lock, it may be otherwise again.
void ZrJobRegistry::AfterLeaving(Task& task, std::size_t left, const char* text) {
  if (left > 1 || !task.listed || task.present != left) return;
  if (left == 0) return EndTask(task);
  if (task.members) TellLastMember(task, text);
}

void ZrJobRegistry::Enter(Task& task) noexcept { ++task.present; }

void ZrJobRegistry::LeaveAsGuest(Task& task, bool all) noexcept {
  const std::size_t left = --task.present;
  if (left > 1) return;
  const ZrLock hold(lock_);
  AfterLeaving(task, left, all ? kLeftAllText : kLeftText);
}

ZrTaskHandle ZrJobRegistry::Find(std::string_view task) const {
  ZrTaskHandle handle;
  const auto number = TaskNumber(task);
  const ZrLock hold(lock_);
  if (const Task* const found = number ? tasks_.Find(*number) : nullptr)
    handle.task_ = found->listed;
  return handle;
}

void ZrJobRegistry::TellLastMember(const Task& task, const char* text) {
  if (stopping_) return;
  try {
    ZrJobLink& last = *task.members->job;
    std::list<Entry> entry(1);
    entry.front().target = last.job->link_;
    entry.front().event.jobName = last.job->JobName();
    entry.front().event.text = text;
    entry.front().event.code = kZrEventLastMember;
    Queue(entry, false);
  } catch (const std::exception&) {
    // Without memory the notice is lost: whoever leaves has left all the same.
  }
}

std::string ZrJobRegistry::Create(ZrJob& owner, std::string_view text) {
  auto task = std::make_shared<Task>(TaskNames().MakeNumber(), owner.Number(), std::string(text));
  std::string name = TaskName(task->number);
  const ZrLock hold(lock_);
  if (owner.link_ && !owner.link_->job) return {};
  StartDelivery();
  tasks_.Enter(*task);
  try {
    AddMember(*task, owner);
  } catch (...) {
    tasks_.TakeOut(*task);  // nobody would ever leave it
    throw;
  }
  task->listed = task;
  return name;
}

bool ZrJobRegistry::Join(std::string_view task, ZrJob& job) {
  const auto number = TaskNumber(task);
  return number && Join(*number, job);
}

bool ZrJobRegistry::Join(std::int64_t task, ZrJob& job) {
  const ZrLock hold(lock_);
  Task* const found = tasks_.Find(task);
  if (!found || (job.link_ && !job.link_->job)) return false;
  AddMember(*found, job);
  return true;
}

void ZrJobRegistry::EndTask(Task& task) {
  tasks_.TakeOut(task);
  const std::shared_ptr<Task> last = std::move(task.listed);
}

bool ZrJobRegistry::Leave(std::string_view task, std::string_view jobName) {
  const auto job = ZrNamedIdSource::NumberOf(kJobPrefix, jobName);
  return job && LeaveBy(task, *job);
}

bool ZrJobRegistry::Leave(std::string_view task, const ZrJob& job) {
  return LeaveBy(task, job.Number());
}

bool ZrJobRegistry::LeaveBy(std::string_view task, std::int64_t job) {
  const auto number = TaskNumber(task);
  if (!number) return false;
  const ZrLock hold(lock_);
  Task* const left = tasks_.Find(*number);
  if (!left) return false;
  if (job == left->owner) {
    while (left->members) RemoveMember(left->members);
    EndTask(*left);
    return true;
  }
  const ZrJobLink* const link = jobs_.Find(job);
  Membership* const member =
      link ? ::Find(left->members, *left, link->memberships, *link) : nullptr;
  if (!member) return false;
  AfterLeaving(*left, RemoveMember(member), kLeftText);
  return true;
}

void ZrJobRegistry::LeaveAllOf(ZrJobLink& job) {
  const auto leave = [this, &job](Task& task) ZR_REQUIRES(lock_) {
    Membership* const member = ::Find(task.members, task, job.memberships, job);
    AfterLeaving(task, RemoveMember(member), kLeftAllText);
  };
  if (job.memberships && !job.memberships->nextOfJob) return leave(*job.memberships->task);
  std::vector<Task*> tasks;
  for (const Membership* m = job.memberships; m; m = m->nextOfJob) tasks.push_back(m->task);
  // The notices go out in the order of the tasks' names.
  std::sort(tasks.begin(), tasks.end(), [](const Task* a, const Task* b) {
    return ZrNamedIdSource::NameStandsBefore(a->number, b->number);
  });
  for (Task* const task : tasks) leave(*task);
}

bool ZrJobRegistry::LeaveAll(std::string_view jobName) {
  const auto number = ZrNamedIdSource::NumberOf(kJobPrefix, jobName);
  const ZrLock hold(lock_);
  ZrJobLink* const found = number ? jobs_.Find(*number) : nullptr;
  if (!found) return false;
  LeaveAllOf(*found);
  return true;
}

bool ZrJobRegistry::LeaveAll(const ZrJob& job) {
  const ZrLock hold(lock_);
  if (!job.link_ || !job.link_->memberships) return false;
  LeaveAllOf(*job.link_);
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
  if (!link->delivering || NoteRetiredHere(*link)) return;
  ++link->retiring;
  delivered_.Wait(lock_, [&link] { return !link->delivering; });
  --link->retiring;
}

std::optional<std::string> ZrJobRegistry::TaskText(std::string_view task) const {
  const auto number = TaskNumber(task);
  const ZrLock hold(lock_);
  const Task* const found = number ? tasks_.Find(*number) : nullptr;
  if (!found) return std::nullopt;
  return found->text;
}

ZrJobRegistry::Counts ZrJobRegistry::Count() const {
  const ZrLock hold(lock_);
  return {jobs_.Size(), tasks_.Size(), events_};
}

void ZrJobRegistry::ReleaseTables() {
  const ZrLock hold(lock_);
  while (Task* const task = tasks_.Any()) {
    while (task->members) RemoveMember(task->members);
    EndTask(*task);
  }
  // Moved from, tables keep no memory; cleared, they would.
  const auto tasks = std::move(tasks_);
  const auto jobs = std::move(jobs_);
  const auto queue = std::move(queue_);
}
