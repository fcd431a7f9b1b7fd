#include "jobs/job.h"

#include <array>

#include "jobs/job_registry.h"
#include "jobs/named_id_source.h"

namespace {

ZrNamedIdSource& JobNames() {
  static ZrNamedIdSource source("_job");
  return source;
}

// Kept in place, not on the heap: it is read by threads that outlive main(), and an unloaded
// library leaves nothing behind.
struct CommonError {
  static constexpr std::string_view kPrefix = "__commonError";
  CommonError() { JobNames().MakeName(kPrefix).copy(text.data(), text.size()); }
  std::array<char, kPrefix.size() + 1 + 7 + 11> text{};
};

}  // namespace

ZrJob::ZrJob() : jobName_(JobNames().MakeName()) {}

ZrJob::~ZrJob() { Retire(); }

bool ZrJob::ReceiveEvent(const ZrJobEvent& /*event*/) { return true; }

// By value for the overrides, which move the event on.
// NOLINTNEXTLINE(performance-unnecessary-value-param)
bool ZrJob::PostEvent(std::string_view /*target*/, ZrJobEvent /*event*/) { return false; }

std::string ZrJob::CreateJoinedTask(std::string_view text) {
  return ZrJobRegistry::Instance().Create(*this, text);
}

bool ZrJob::LeaveJoinedTask(std::string_view task) {
  return ZrJobRegistry::Instance().Leave(task, jobName_);
}

bool ZrJob::LeaveAllJoinedTasks() { return ZrJobRegistry::Instance().LeaveAll(jobName_); }

bool ZrJob::SetState(std::uint32_t state) {
  {
    const ZrLock hold(stateLock_);
    if (state == state_ || state == requestedState_) return false;
    requestedState_ = state;
  }
  // Called without the lock: a guard may read or change the job's state.
  if (stateGuard_ && !stateGuard_()) return false;
  state_ = state;
  return true;
}

bool ZrJob::Attach(std::string_view task) {
  {
    const ZrLock hold(stateLock_);
    attachedTask_ = task;
  }
  return ZrJobRegistry::Instance().Join(task, *this);
}

bool ZrJob::Detach(std::string_view task) {
  if (!task.empty()) return LeaveJoinedTask(task);
  std::string attached;
  {
    const ZrLock hold(stateLock_);
    attached.swap(attachedTask_);
  }
  return LeaveJoinedTask(attached);
}

std::string ZrJob::CreateJoinedTaskFor(std::string_view text) { return CreateJoinedTask(text); }

std::string ZrJob::AttachedTask() const {
  const ZrLock hold(stateLock_);
  return attachedTask_;
}

std::string ZrJob::CommonErrorName() {
  static const CommonError name;
  return {name.text.data(), name.text.size()};
}

void ZrJob::Retire() noexcept {
  // Whoever ends a job is the last to use it, so nobody else is making the link now.
  if (link_) ZrJobRegistry::Instance().Retire(*this);
}
