#include "jobs/job.h"

#include <array>
#include <memory>
#include <utility>

#include "jobs/job_registry.h"
#include "jobs/named_id_source.h"

namespace {

ZrNamedIdSource& JobNames() {
  static ZrNamedIdSource source(ZrJobRegistry::kJobPrefix);
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

ZrJob::~ZrJob() {
  Retire();
  delete jobName_.load();
}

std::int64_t ZrJob::Number() const {
  std::int64_t number = jobNumber_.load();
  if (number != kNoNumber) return number;
  // Of two that take one at once, the first one's stays.
  const std::int64_t taken = JobNames().MakeNumber();
  return jobNumber_.compare_exchange_strong(number, taken) ? taken : number;
}

const std::string& ZrJob::JobName() const {
  const std::string* name = jobName_.load(std::memory_order_acquire);
  if (name) return *name;
  // Of two that write it at once, the first one's stays.
  auto written = std::make_unique<const std::string>(
      ZrNamedIdSource::NameOf(ZrJobRegistry::kJobPrefix, Number()));
  if (!jobName_.compare_exchange_strong(name, written.get())) return *name;
  return *written.release();
}

bool ZrJob::ReceiveEvent(const ZrJobEvent& /*event*/) { return true; }

// By value for the overrides, which move the event on.
bool ZrJob::PostEvent(std::string_view /*target*/, ZrJobEvent /*event*/) { return false; }

std::string ZrJob::CreateJoinedTask(std::string_view text) {
  return ZrJobRegistry::Instance().Create(*this, text);
}

bool ZrJob::LeaveJoinedTask(std::string_view task) {
  return ZrJobRegistry::Instance().Leave(task, *this);
}

bool ZrJob::LeaveAllJoinedTasks() { return ZrJobRegistry::Instance().LeaveAll(*this); }

bool ZrJob::SetState(std::uint32_t state) {
  std::uint32_t requested = requestedState_.load();
  do {
    if (state == state_ || state == requested) return false;
  } while (!requestedState_.compare_exchange_weak(requested, state));
  // Called without the lock: a guard may read or change the job's state.
  if (stateGuard_ && !stateGuard_()) return false;
  state_ = state;
  return true;
}

bool ZrJob::Attach(std::string_view task) {
  const auto number = ZrJobRegistry::TaskNumber(task);
  {
    const ZrLock hold(stateLock_);
    attachedTask_ = number.value_or(kNoTask);
    attachedName_ = number ? std::string_view() : task;
  }
  return number && ZrJobRegistry::Instance().Join(*number, *this);
}

bool ZrJob::Detach(std::string_view task) {
  if (!task.empty()) return LeaveJoinedTask(task);
  std::int64_t number = kNoTask;
  std::string name;
  {
    const ZrLock hold(stateLock_);
    number = std::exchange(attachedTask_, kNoTask);
    name.swap(attachedName_);
  }
  return LeaveJoinedTask(number == kNoTask ? name : ZrJobRegistry::TaskName(number));
}

std::string ZrJob::CreateJoinedTaskFor(std::string_view text) { return CreateJoinedTask(text); }

std::string ZrJob::AttachedTask() const {
  const ZrLock hold(stateLock_);
  return attachedTask_ == kNoTask ? attachedName_ : ZrJobRegistry::TaskName(attachedTask_);
}

std::string ZrJob::CommonErrorName() {
  static const CommonError name;
  return {name.text.data(), name.text.size()};
}

void ZrJob::Retire() noexcept {
  // Whoever ends a job is the last to use it, so nobody else is making the link now.
  if (link_) ZrJobRegistry::Instance().Retire(*this);
}
