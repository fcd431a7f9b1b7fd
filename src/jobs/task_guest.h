#pragma once
// Presence in a joined task without a name in it. A guest keeps the task from being left alone like
// a member does, but is no job and gets no events. Coming and going is one count: message heads are
// guests of their connection's task, and so are servers while they answer in it.

#include <memory>
#include <utility>

#include "jobs/job_registry.h"

/// A joined task, found once (ZrJobRegistry::Find()). Keeps its record, not the task. Threads: any.
class ZrTaskHandle {
 public:
  ZrTaskHandle() = default;
  explicit operator bool() const { return task_ != nullptr; }

 private:
  friend class ZrJobRegistry;
  friend class ZrTaskGuest;
  std::shared_ptr<ZrJobRegistry::Task> task_;
};

/// One presence, which ends with the object. Threads: one at a time.
class ZrTaskGuest {
 public:
  ZrTaskGuest() = default;
  /// Of no effect for an empty handle, and for a task that has ended.
  explicit ZrTaskGuest(const ZrTaskHandle& task) : task_(task.task_) {
    if (task_) ZrJobRegistry::Enter(*task_);
  }
  ZrTaskGuest(ZrTaskGuest&& other) noexcept : task_(std::move(other.task_)) {}
  ZrTaskGuest& operator=(ZrTaskGuest&& other) noexcept {
    std::swap(task_, other.task_);
    return *this;
  }
  /// Like the end of a job: a member that stays behind alone is told by "kommt später A".
  ~ZrTaskGuest() { End(true); }

  /// Like a job that leaves the task: a member that stays behind alone is told by "kommt später".
  /// No: it was in none.
  bool Leave() noexcept { return End(false); }

 private:
  bool End(bool all) noexcept {
    if (!task_) return false;
    ZrJobRegistry::Instance().LeaveAsGuest(*task_, all);
    task_ = nullptr;
    return true;
  }
  std::shared_ptr<ZrJobRegistry::Task> task_;
};
