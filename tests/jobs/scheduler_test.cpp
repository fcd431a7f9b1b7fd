#include "jobs/scheduler.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <stdexcept>
#include <vector>

#include "platform/thread.h"
#include "tests/support/captured.h"
#include "tests/support/wait.h"

namespace {

using namespace std::chrono_literals;
using Record = ZrRinvalJobParametersAndResult;
using Clock = std::chrono::steady_clock;

ZrRinvalTaskDescription Once() { return {}; }

ZrRinvalTaskDescription Repeating(std::uint64_t delayMs) {
  ZrRinvalTaskDescription description;
  description.kind = Record::kRepeat;
  description.repeatDelayMs = delayMs;
  return description;
}

// Holds runs up until it is opened. It outlives their scheduler.
struct Gate {
  Record* Pass(Record* record) {
    ++arrived;
    EXPECT_TRUE(zrtest::WaitFor([this] { return open.load(); }));
    return record;
  }
  bool WaitForArrivals(int count) {
    return zrtest::WaitFor([&] { return arrived >= count; });
  }
  std::atomic<bool> open{false};
  std::atomic<int> arrived{0};
};

TEST(Scheduler, AResultIsFetchedOnce) {
  Gate gate;
  ZrRinvalScheduler2 scheduler;
  const auto id = scheduler.Submit([&](Record* r) { return gate.Pass(r); }, nullptr, Once());
  auto given = std::make_unique<Record>();
  const Record* const record = given.get();
  const auto second = scheduler.Submit([](Record* r) { return r; }, std::move(given), Once());
  ASSERT_TRUE(scheduler.WaitDoneFor(second, 20s)) << "runs beside the first task";
  EXPECT_EQ(scheduler.FetchResult(second).get(), record);
  EXPECT_FALSE(scheduler.IsDone(id));
  EXPECT_EQ(scheduler.FetchResult(id), nullptr);
  gate.open = true;
  scheduler.WaitDone(id);
  const auto result = scheduler.FetchResult(id);
  ASSERT_TRUE(result);
  EXPECT_EQ(result->jobId, id);
  EXPECT_EQ(result->status, 1u);
  EXPECT_EQ(scheduler.FetchResult(id), nullptr);
  EXPECT_TRUE(scheduler.IsDone(id));
}

TEST(Scheduler, ARepeatNeverComesBeforeItsDelay) {
  ZrRinvalScheduler2 scheduler;
  int runs = 0;
  Clock::time_point ended = Clock::now() - 1h;
  const auto run = [&](Record* r) {
    EXPECT_GE(Clock::now() - ended, 30ms);
    if (++runs == 4) r->kind = 0;
    ended = Clock::now();
    return r;
  };
  const std::uint64_t id = scheduler.Submit(run, nullptr, Repeating(30));
  EXPECT_TRUE(zrtest::WaitFor([&] {
    const auto result = scheduler.FetchResult(id);
    return result && result->kind == 0;
  }));
  EXPECT_EQ(runs, 4);
}

TEST(Scheduler, FailedTasksAreDoneWithNoResult) {
  ZrRinvalScheduler2 scheduler;
  const ZrRinvalScheduler2::TaskFunction failures[] = {
      [](Record*) -> Record* { throw std::runtime_error("thrown on purpose"); },
      [](Record*) -> Record* { throw 1; },
      [](Record*) -> Record* { return nullptr; },
      nullptr,
  };
  testing::internal::CaptureStderr();
  // Of the failures of one task only a few per second are said.
  static int number = 0;
  const std::string name = "failing " + std::to_string(++number);
  for (const auto& failure : failures) {
    for (auto description : {Once(), Repeating(0)}) {
      description.name = name;
      const std::uint64_t id = scheduler.Submit(failure, nullptr, description);
      EXPECT_TRUE(scheduler.WaitDoneFor(id, 20s));
      EXPECT_EQ(scheduler.FetchResult(id), nullptr);
    }
  }
  const std::string told = "task \"" + name + "\": thrown on purpose\n";
  EXPECT_NE(zrtest::CapturedErrors().find(told), std::string::npos);
}

TEST(Scheduler, CancelledTasksEnd) {
  Gate gate;
  ZrRinvalScheduler2 scheduler;
  std::atomic<int> runs{0};
  ZrRinvalTaskDescription description = Repeating(3'600'000);
  const auto repeat = [&](Record* r) {
    ++runs;
    return gate.Pass(r);
  };
  const auto submit = [&](std::uint64_t mask) {
    description.mask = mask;
    return scheduler.Submit(repeat, nullptr, description);
  };
  const std::uint64_t running = submit(6);
  const std::uint64_t excluded = submit(2);
  const std::uint64_t follower = submit(4);
  ASSERT_TRUE(gate.WaitForArrivals(1));
  scheduler.Cancel(excluded);
  EXPECT_TRUE(scheduler.IsDone(excluded)) << "it never ran";
  scheduler.Cancel(running);
  EXPECT_FALSE(scheduler.IsDone(running));
  EXPECT_EQ(runs, 1) << "tasks that share a bit of their masks wait for each other";

  gate.open = true;
  EXPECT_TRUE(scheduler.WaitDoneFor(running, 20s));
  EXPECT_TRUE(scheduler.FetchResult(running));
  EXPECT_TRUE(scheduler.WaitDoneFor(follower, 20s)) << "the bits are free when the run has ended";
  scheduler.Cancel(follower);
  EXPECT_TRUE(scheduler.IsDone(follower)) << "it waits for an hour no more";
  EXPECT_EQ(runs, 2);
}

TEST(Scheduler, StopEndsEveryTaskOnce) {
  constexpr int kTasks = 20;
  Gate gate;
  std::atomic<int> stops{0};
  std::atomic<int> ended{0};
  ZrRinvalScheduler2 scheduler;
  ZrRinvalTaskDescription description = Repeating(0);
  description.stopAction = [&stops, &gate] {
    if (++stops == kTasks) gate.open = true;
    throw std::runtime_error("dropped");
  };
  const auto run = [&](Record* r) {
    gate.Pass(r);
    ++ended;
    return r;
  };
  for (int i = 0; i < kTasks; ++i) {
    description.mask = std::uint64_t{1} << i;
    scheduler.Submit(run, nullptr, description);
  }
  ASSERT_TRUE(gate.WaitForArrivals(kTasks));
  const auto neverRun = [](Record* r) {
    ADD_FAILURE() << "a task without its bit, or after the stop";
    return r;
  };
  const std::uint64_t ready = scheduler.Submit(neverRun, nullptr, description);
  scheduler.Stop();
  EXPECT_EQ(ended, kTasks);
  EXPECT_TRUE(scheduler.IsDone(ready));
  EXPECT_TRUE(scheduler.IsDone(scheduler.Submit(neverRun, nullptr, Once())));
  scheduler.Stop();
  EXPECT_EQ(stops, kTasks);
}

TEST(Scheduler, SubmittersRaceWithTheStop) {
  for (int round = 0; round < 40; ++round) {
    ZrRinvalScheduler2 scheduler;
    std::atomic<int> submitted{0};
    std::vector<ZrThread> threads;
    for (int t = 0; t < 3; ++t) {
      threads.push_back(ZrThread::Start("submitter", [&, t] {
        for (int i = 0; i < 20; ++i) {
          const auto id = scheduler.Submit([](Record* r) { return r; }, nullptr,
                                           i % 2 == 0 ? Repeating(0) : Once());
          ++submitted;
          if ((i + t) % 3 == 0) scheduler.WaitDone(id);
          scheduler.Cancel(id);
          scheduler.WaitDone(id);
          scheduler.FetchResult(id);
        }
      }));
    }
    EXPECT_TRUE(zrtest::WaitFor([&] { return submitted >= round; }));
    scheduler.Stop();
  }
}

// What uses the stop action's objects is released as soon as the task is done.
TEST(Scheduler, ATaskIsNotDoneInsideItsStopAction) {
  Gate run;
  ZrRinvalScheduler2 scheduler;
  std::atomic<bool> inAction{false};
  std::atomic<bool> leftAction{false};
  std::uint64_t id = 0;
  ZrRinvalTaskDescription description;
  description.stopAction = [&] {
    inAction = true;
    run.open = true;
    EXPECT_FALSE(scheduler.WaitDoneFor(id, 50ms));
    leftAction = true;
  };
  id = scheduler.Submit([&run](Record* r) { return run.Pass(r); }, nullptr, description);
  ASSERT_TRUE(run.WaitForArrivals(1));
  ZrThread stopper = ZrThread::Start("stopper", [&scheduler] { scheduler.Stop(); });
  ASSERT_TRUE(zrtest::WaitFor([&inAction] { return inAction.load(); }));
  scheduler.WaitDone(id);
  EXPECT_TRUE(leftAction);
}

TEST(Scheduler, ALowPriorityEndsWithItsTask) {
  ZrRinvalScheduler2 scheduler;
  const auto yield = [usual = getpriority(PRIO_PROCESS, 0)](Record* record) {
    EXPECT_EQ(getpriority(PRIO_PROCESS, 0), usual);  // of this thread
    zr::YieldToOthers();
    return record;
  };
  for (int run = 0; run < 3; ++run) scheduler.WaitDone(scheduler.Submit(yield, nullptr, Once()));
}

TEST(Scheduler, ARepeatingTaskFindsAThreadAgain) {
  Gate gate;
  ZrRinvalScheduler2 scheduler;
  std::atomic<int> runs = 0;
  const auto repeat = [&runs](Record* r) {
    ++runs;
    return r;
  };
  const std::uint64_t id = scheduler.Submit(repeat, nullptr, Repeating(5));
  // Another task takes the thread of the last run; when it came during one, it is the one without.
  testing::internal::CaptureStderr();
  std::uint64_t other = 0;
  do {
    ASSERT_TRUE(zrtest::WaitFor([&] { return scheduler.FetchResult(id) != nullptr; }));
    zr::FailThreadStart(1);
    other = scheduler.Submit([&gate](Record* r) { return gate.Pass(r); }, nullptr, Once());
  } while (scheduler.IsDone(other));
  const int before = runs;
  EXPECT_TRUE(zrtest::WaitFor([&] { return runs >= before + 2; }));
  zr::FailThreadStart(0);
  zrtest::CapturedErrors();
  scheduler.Cancel(id);
  gate.open = true;
}

TEST(Scheduler, ACancelledRepeatIsDoneWithItsLastRunWhateverThatReturns) {
  Gate third;
  ZrRinvalScheduler2 scheduler;
  auto* const returned = new Record;  // each time
  returned->kind = Record::kRepeat;
  int runs = 0;
  const auto run = [&](Record*) { return ++runs < 3 ? returned : third.Pass(returned); };
  const std::uint64_t id = scheduler.Submit(run, nullptr, Repeating(0));
  ASSERT_TRUE(third.WaitForArrivals(1));
  EXPECT_TRUE(scheduler.IsDone(id)) << "the former result waits";
  scheduler.Cancel(id);
  EXPECT_FALSE(scheduler.IsDone(id));
  EXPECT_EQ(scheduler.FetchResult(id), nullptr) << "the record is in use";
  third.open = true;
  EXPECT_TRUE(scheduler.WaitDoneFor(id, 20s));
  EXPECT_EQ(scheduler.FetchResult(id).get(), returned);
}

}  // namespace
