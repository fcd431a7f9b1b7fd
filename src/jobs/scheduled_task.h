#pragma once
// A submitted task as the scheduler keeps it. Private to the scheduler's sources.

#include <cstdint>
#include <memory>

#include "jobs/scheduler.h"

/// Guarded by taskLock_, except for `function` and `record`, which the run has to itself.
struct ZrRinvalTaskRecord {
  enum class Stage { kReady, kRunning, kIdle, kWaiting };

  std::uint64_t id = 0;
  ZrRinvalScheduler2::TaskFunction function;
  ZrRinvalTaskDescription description;
  std::unique_ptr<ZrRinvalJobParametersAndResult> record;  // given to every run

  Stage stage = Stage::kReady;
  ZrRinvalScheduler2::Waiting::iterator place;  // in the waiting list, at that stage
  bool cancelled = false;
  bool done = false;      // a run was collected since the last fetch, or none will come
  bool finished = false;  // a result waits to be fetched: `result` or, when that is null, `record`
  std::unique_ptr<ZrRinvalJobParametersAndResult> result;
  ZrRinvalJobParametersAndResult lastRun;  // the base members of the last result
  bool stopCalled = false;
  bool inStopAction = false;  // the run is not over before its stop action has returned
};
