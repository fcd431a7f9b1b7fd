// A library as a host loads it: jobs, events and tasks in a module of their own.

#include <array>
#include <atomic>

#include "jobs/zrjob.h"
#include "jobs/zrjobregistry.h"
#include "jobs/zrscheduler.h"
#include "platform/zrthread.h"
#include "tests/jobs/recording_job.h"

#define ZR_TEST_EXPORT extern "C" __attribute__((visibility("default")))

/// Uses every thread the layer has; true when all that was asked for happened.
ZR_TEST_EXPORT bool UseJobs() {
  std::atomic<bool> dropped{false};
  std::shared_ptr<zrtest::RecordingJob> last;
  last = zr::MakeJob<zrtest::RecordingJob>([&](const ZrJobEvent&) {
    last.reset();
    dropped = true;
  });
  last->CreateJoinedTask("");
  ZrJobRegistry::Instance().Post(last->JobName(), zrtest::Event("end"));
  if (!zrtest::WaitFor([&dropped] { return dropped.load(); })) return false;
  ZrJobRegistry::Instance().WaitForReaper();
  ZrRinvalScheduler2 scheduler;
  ZrRinvalTaskDescription repeating;
  repeating.kind = ZrRinvalJobParametersAndResult::kRepeat;
  int runs = 0;
  const std::uint64_t id = scheduler.Submit(
      [&runs](ZrRinvalJobParametersAndResult* record) {
        if (++runs == 3) record->kind = 0;
        return record;
      },
      nullptr, repeating);
  return zrtest::WaitFor([&] {
    const auto result = scheduler.FetchResult(id);
    return result && result->kind == 0;
  });
}

static ZrThread StartTurns(std::atomic<unsigned>& turns) {
  return ZrThread::Start("left behind", [&turns] {
    for (;; ++turns) {
      const auto job = zr::MakeJob<zrtest::RecordingJob>();
      job->CreateJoinedTask("");
      ZrJobRegistry::Instance().Post(job->JobName(), zrtest::Event(""));
      ZrJobRegistry::Instance().Deliver(job->JobName(), zrtest::Event(""));
    }
  });
}

/// Leaves threads behind that go on making, joining and telling jobs.
ZR_TEST_EXPORT bool LeaveJobsRunning() {
  static std::atomic<unsigned> turns{0};
  // Never joined: as in a host that exits without a stop.
  static const auto* const running =
      new std::array<ZrThread, 2>{StartTurns(turns), StartTurns(turns)};
  if (!running->front().Joinable()) return false;
  return zrtest::WaitFor([] { return turns >= 100; });
}
