// What a request pays for being handled by jobs: names, the life of a message head, events, and
// the turns of the scheduler.

#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdlib>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "jobs/job.h"
#include "jobs/job_registry.h"
#include "jobs/named_id_source.h"
#include "jobs/scheduler.h"
#include "jobs/task_guest.h"
#include "platform/sync.h"

namespace {
std::atomic<std::uint64_t> allocated{0};
}

// Not inlined: one of them alone would seem to be the partner of another one.
[[gnu::noinline]] void* operator new(std::size_t size) {
  allocated.fetch_add(1, std::memory_order_relaxed);
  if (void* const memory = std::malloc(size)) return memory;
  throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

namespace {

/// Reports the heap allocations of a turn, of all threads together.
class Allocations {
 public:
  explicit Allocations(benchmark::State& state) : state_(state), before_(allocated) {}
  ~Allocations() {
    if (state_.thread_index() != 0) return;
    state_.counters["allocations"] = benchmark::Counter(static_cast<double>(allocated - before_),
                                                        benchmark::Counter::kAvgIterations);
  }

 private:
  benchmark::State& state_;
  const std::uint64_t before_;
};

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
  const Allocations count(state);
  for (auto _ : state) benchmark::DoNotOptimize(zr::MakeJob<ZrJob>());
}
BENCHMARK(JobAlone);

// Constructed, attached to its connection's joined task, detached, destroyed.
void HeadLife(benchmark::State& state) {
  ZrJob owner;
  ZrJob server;
  const std::string task = owner.CreateJoinedTask("receive_");
  server.Attach(task);
  const Allocations count(state);
  for (auto _ : state) {
    const auto head = zr::MakeJob<ZrJob>();
    head->Attach(task);
    head->Detach("");
  }
}
BENCHMARK(HeadLife);

// A member comes and goes, on several threads in tasks of their own.
void JoinAndLeave(benchmark::State& state) {
  ZrJob owner;
  ZrJob member;
  const std::string task = owner.CreateJoinedTask("receive_");
  for (auto _ : state) {
    member.Attach(task);
    member.Detach("");
  }
}
BENCHMARK(JoinAndLeave)->ThreadRange(1, 4)->UseRealTime();

// The same without a name in it, as heads and answering servers do, by the handle that their
// connection keeps: in tasks of their own, as connections have them, and all in one task.
void GuestComesAndGoes(benchmark::State& state) {
  ZrJob handler;
  ZrJob connection;
  static ZrTaskHandle shared;
  const std::string task = handler.CreateJoinedTask("receive_");
  connection.Attach(task);
  const bool all = state.range(0) != 0;
  const ZrTaskHandle own = ZrJobRegistry::Instance().Find(task);
  if (all && state.thread_index() == 0) shared = own;
  for (auto _ : state) ZrTaskGuest(all ? shared : own).Leave();
}
BENCHMARK(GuestComesAndGoes)->ArgName("shared")->Arg(0)->Arg(1)->ThreadRange(1, 4)->UseRealTime();

// The whole of a joined task: made, joined by another job, closed by its owner.
void JoinedTask(benchmark::State& state) {
  ZrJob owner;
  ZrJob member;
  const Allocations count(state);
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
  const Allocations count(state);
  for (auto _ : state)
    ZrJobRegistry::Instance().Deliver(job->JobName(), DataArrived(job->JobName()));
}
BENCHMARK(DeliverInline);

// The events of so many connections of one server, as one wait of a thread that receives brings
// them; several threads, each with the events of another server.
void DeliverBatch(benchmark::State& state) {
  const auto job = zr::MakeJob<CountingJob>();
  job->CreateJoinedTask("");
  const Allocations count(state);
  for (auto _ : state) {
    std::vector<ZrJobEvent> events;
    for (int i = 0; i < state.range(0); ++i) events.push_back(DataArrived(job->JobName()));
    ZrJobRegistry::Instance().Deliver(job->JobName(), std::move(events));
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(DeliverBatch)->Arg(1)->Arg(8)->Arg(64)->ThreadRange(1, 4)->UseRealTime();

// Batches of eight to one server from several threads. They take turns at it: one that finds the
// server occupied would leave its events to the delivery thread.
void DeliverInTurn(benchmark::State& state) {
  static ZrMutex turn;
  static std::shared_ptr<CountingJob> server;
  static std::vector<ZrJobEvent> events;
  if (state.thread_index() == 0) {
    server = zr::MakeJob<CountingJob>();
    server->CreateJoinedTask("");
    events.assign(8, DataArrived(server->JobName()));
  }
  for (auto _ : state) {
    const ZrLock hold(turn);
    ZrJobRegistry::Instance().Deliver(server->JobName(), events);
  }
  state.SetItemsProcessed(state.iterations() * 8);
  if (state.thread_index() == 0) server = nullptr;
}
BENCHMARK(DeliverInTurn)->ThreadRange(1, 4)->UseRealTime();

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
    for (std::size_t i = 0; i < burst; ++i)
      ZrJobRegistry::Instance().Post(job->JobName(), DataArrived(job->JobName()));
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
