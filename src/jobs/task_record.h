#pragma once
// The records that pass between a submitter, the scheduler and a task.

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

/// What a task function is given and what it returns. Derive from it to carry more.
class ZrRinvalJobParametersAndResult {
 public:
  ZrRinvalJobParametersAndResult() = default;
  ZrRinvalJobParametersAndResult(const ZrRinvalJobParametersAndResult&) = default;
  ZrRinvalJobParametersAndResult& operator=(const ZrRinvalJobParametersAndResult&) = default;
  virtual ~ZrRinvalJobParametersAndResult() = default;
  /// Copies `jobId` and `status`, not `kind`.
  virtual void Assign(const ZrRinvalJobParametersAndResult& other);

  std::uint64_t jobId = 0;   ///< the task's ID, written by the scheduler
  std::uint64_t status = 0;  ///< 1 in records that the scheduler makes; it does not read it
  std::uint32_t kind = 0;    ///< on return: kRepeat asks for another run, all else ends the task

  static constexpr std::uint32_t kRepeat = 1;
};

/// What the submitter says about a task; copied by the scheduler.
struct ZrRinvalTaskDescription {
  /// Called once, from the thread that stops the scheduler, when the task runs at that moment. It
  /// makes the run end soon and does not wait for it; the run is not over before it has returned.
  /// Exceptions are dropped.
  std::function<void()> stopAction;
  std::uint32_t kind = 0;           ///< ZrRinvalJobParametersAndResult::kRepeat repeats
  std::uint64_t mask = 0;           ///< tasks that share a bit never run at the same time
  std::string name = "unknown";     ///< for diagnostics
  std::uint64_t repeatDelayUs = 0;  ///< pause before a repeated run in microseconds, and
  std::uint64_t repeatDelayMs = 0;  ///< in milliseconds; both are added
  std::int64_t nextDue = 0;         ///< written by the scheduler: 100-ns ticks since 1970
};
