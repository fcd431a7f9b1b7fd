// What a request pays for being handled by jobs: names, the life of a message head, events, and
// the turns of the scheduler.

#include <benchmark/benchmark.h>

#include <atomic>
#include <memory>
#include <string>

#include "jobs/job.h"
#include "jobs/job_registry.h"
#include "jobs/named_id_source.h"
#include "jobs/scheduler.h"
#include "platform/sync.h"

namespace {

class CountingJob : public ZrJob {
 public:
  bool ReceiveEvent(const ZrJobEvent&) override ZR_REQUIRES(lock_) {
    const ZrLock hold(mutex_);
    if (++received_ == awaited_) arrived_.NotifyAll();
    return true;
  }
  void Await(std::size_t count) {
    const ZrLock hold(mutex_);
    awaited_ = count;
    arrived_.Wait(mutex_, [this]() ZR_REQUIRES(mutex_) { return received_ >= awaited_; });
  }

 private:
  ZrMutex mutex_;
  ZrCondition arrived_;
  std::size_t received_ ZR_GUARDED_BY(mutex_) = 0;
  std::size_t awaited_ ZR_GUARDED_BY(mutex_) = 0;
};

ZrJobEvent DataArrived(const std::string& connection) {
  ZrJobEvent event;
  event.jobName = connection;
  event.code = kZrEventDataArrived;
  return event;
}

void NameMaking(benchmark::State& state) {
  ZrNamedIdSource source("_job");
  for (auto _ : state) benchmark::DoNotOptimize(source.MakeName());
}
BENCHMARK(NameMaking);

void JobAlone(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(zr::MakeJob<ZrJob>());
}
BENCHMARK(JobAlone);

// Constructed, attached to its connection's joined task, detached, destroyed.
void HeadLife(benchmark::State& state) {
  ZrJob owner;
  ZrJob server;
  const std::string task = owner.CreateJoinedTask("receive_");
  server.Attach(task);
  for (auto _ : state) {
    const auto head = zr::MakeJob<ZrJob>();
    head->Attach(task);
    head->Detach("");
  }
}
BENCHMARK(HeadLife);

// The whole of a joined task: made, joined by another job, closed by its owner.
void JoinedTask(benchmark::State& state) {
  ZrJob owner;
  ZrJob member;
  for (auto _ : state) {
    const std::string task = owner.CreateJoinedTask("send_");
    member.Attach(task);
    owner.LeaveJoinedTask(task);
  }
}
BENCHMARK(JoinedTask);

void DeliverInline(benchmark::State& state) {
  const auto job = zr::MakeJob<CountingJob>();
  job->CreateJoinedTask("");
  for (auto _ : state) {
    ZrJobRegistry::Instance().Deliver(job->JobName(), DataArrived(job->JobName()));
  }
}
BENCHMARK(DeliverInline);

// One event over the delivery thread and the wait for it: two wake-ups.
void PostRoundTrip(benchmark::State& state) {
  const auto job = zr::MakeJob<CountingJob>();
  job->CreateJoinedTask("");
  std::size_t sent = 0;
  for (auto _ : state) {
    ZrJobRegistry::Instance().Post(job->JobName(), DataArrived(job->JobName()));
    job->Await(++sent);
  }
}
BENCHMARK(PostRoundTrip)->UseRealTime();

void PostBurst(benchmark::State& state) {
  const auto job = zr::MakeJob<CountingJob>();
  job->CreateJoinedTask("");
  const auto burst = static_cast<std::size_t>(state.range(0));
  std::size_t sent = 0;
  for (auto _ : state) {
    for (std::size_t i = 0; i < burst; ++i) {
      ZrJobRegistry::Instance().Post(job->JobName(), DataArrived(job->JobName()));
    }
    job->Await(sent += burst);
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(PostBurst)->Arg(1000)->UseRealTime();

// Submit, run on another thread, wait for the end, fetch.
void SchedulerTurn(benchmark::State& state) {
  ZrRinvalScheduler2 scheduler;
  const auto task = [](ZrRinvalJobParametersAndResult* record) { return record; };
  for (auto _ : state) {
    const std::uint64_t id = scheduler.Submit(task, nullptr, {});
    scheduler.WaitDone(id);
    benchmark::DoNotOptimize(scheduler.FetchResult(id));
  }
}
BENCHMARK(SchedulerTurn)->UseRealTime();

}  // namespace
