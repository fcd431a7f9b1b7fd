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

// Holds runs up until it is opened.
class Gate {
 public:
  void Open() {
    const ZrLock hold(mutex_);
    open_ = true;
    changed_.NotifyAll();
  }
  Record* Pass(Record* record) {
    const ZrLock hold(mutex_);
    ++arrived_;
    changed_.NotifyAll();
    EXPECT_TRUE(changed_.WaitFor(mutex_, 20s, [this]() ZR_REQUIRES(mutex_) { return open_; }));
    return record;
  }
  bool WaitForArrivals(int count) {
    const ZrLock hold(mutex_);
    return changed_.WaitFor(mutex_, 20s,
                            [this, count]() ZR_REQUIRES(mutex_) { return arrived_ >= count; });
  }

 private:
  ZrMutex mutex_;
  ZrCondition changed_;
  bool open_ ZR_GUARDED_BY(mutex_) = false;
  int arrived_ ZR_GUARDED_BY(mutex_) = 0;
};

TEST(Scheduler, AResultIsFetchedOnce) {
  ZrRinvalScheduler2 scheduler;
  Gate gate;
  const auto pass = [&gate](Record* r) { return gate.Pass(r); };
  const std::uint64_t id = scheduler.Submit(pass, nullptr, Once());
  auto given = std::make_unique<Record>();
  const Record* const record = given.get();
  const auto second = scheduler.Submit([](Record* r) { return r; }, std::move(given), Once());
  ASSERT_TRUE(scheduler.WaitDoneFor(second, 20s)) << "runs beside the first task";
  EXPECT_EQ(scheduler.FetchResult(second).get(), record);
  EXPECT_FALSE(scheduler.IsDone(id));
  EXPECT_EQ(scheduler.FetchResult(id), nullptr);
  gate.Open();
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
  std::vector<Clock::duration> pauses;
  Clock::time_point ended{};
  const std::uint64_t id = scheduler.Submit(
      [&](Record* r) {
        const Clock::time_point now = Clock::now();
        if (ended != Clock::time_point{}) pauses.push_back(now - ended);
        r->kind = pauses.size() == 3 ? 0 : Record::kRepeat;
        ended = Clock::now();
        return r;
      },
      nullptr, Repeating(30));
  ASSERT_TRUE(zrtest::WaitFor([&] {
    const auto result = scheduler.FetchResult(id);
    return result && result->kind == 0;
  }));
  ASSERT_EQ(pauses.size(), 3u);
  for (const auto pause : pauses) EXPECT_GE(pause, 30ms);
}

/// Of the failures of one task only a few per second are said.
std::string UnusedName() {
  static int number = 0;
  return "test " + std::to_string(++number);
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
  const std::string name = UnusedName();
  for (const auto& failure : failures) {
    for (auto description : {Once(), Repeating(0)}) {
      description.name = name;
      const std::uint64_t id = scheduler.Submit(failure, nullptr, description);
      EXPECT_TRUE(scheduler.WaitDoneFor(id, 20s));
      EXPECT_EQ(scheduler.FetchResult(id), nullptr);
    }
  }
  EXPECT_EQ(zrtest::CapturedErrors().find("task \"" + name + "\": thrown on purpose\n"), 0u);
}

TEST(Scheduler, CancelledTasksEnd) {
  ZrRinvalScheduler2 scheduler;
  Gate gate;
  std::atomic<int> runs{0};
  ZrRinvalTaskDescription description = Repeating(3'600'000);
  description.mask = 6;
  const auto repeat = [&](Record* r) {
    ++runs;
    return gate.Pass(r);
  };
  const std::uint64_t running = scheduler.Submit(repeat, nullptr, description);
  description.mask = 2;
  const std::uint64_t excluded = scheduler.Submit(repeat, nullptr, description);
  description.mask = 4;
  const std::uint64_t follower = scheduler.Submit(repeat, nullptr, description);
  ASSERT_TRUE(gate.WaitForArrivals(1));
  scheduler.Cancel(excluded);
  EXPECT_TRUE(scheduler.IsDone(excluded)) << "it never ran";
  scheduler.Cancel(running);
  EXPECT_FALSE(scheduler.IsDone(running));
  EXPECT_EQ(runs, 1) << "tasks that share a bit of their masks wait for each other";

  gate.Open();
  EXPECT_TRUE(scheduler.WaitDoneFor(running, 20s));
  EXPECT_TRUE(scheduler.FetchResult(running));
  EXPECT_TRUE(scheduler.WaitDoneFor(follower, 20s)) << "the bits are free when the run has ended";
  scheduler.Cancel(follower);
  EXPECT_TRUE(scheduler.IsDone(follower)) << "it waits for an hour no more";
  EXPECT_EQ(runs, 2);
}

TEST(Scheduler, ACancelledRepeatIsDoneWithItsLastRun) {
  ZrRinvalScheduler2 scheduler;
  Gate second;
  int runs = 0;
  const std::uint64_t id = scheduler.Submit(
      [&](Record* r) { return ++runs == 1 ? r : second.Pass(r); }, nullptr, Repeating(0));
  ASSERT_TRUE(second.WaitForArrivals(1));
  EXPECT_TRUE(scheduler.IsDone(id)) << "the first result waits";
  scheduler.Cancel(id);
  EXPECT_FALSE(scheduler.IsDone(id));
  EXPECT_EQ(scheduler.FetchResult(id), nullptr) << "the record is in use";
  second.Open();
  EXPECT_TRUE(scheduler.WaitDoneFor(id, 20s));
  EXPECT_TRUE(scheduler.FetchResult(id));
}

TEST(Scheduler, StopEndsEveryTaskOnce) {
  Gate gate;
  std::atomic<int> stops{0};
  std::atomic<int> ended{0};
  {
    ZrRinvalScheduler2 scheduler;
    for (int i = 0; i < 20; ++i) {
      ZrRinvalTaskDescription description = Repeating(0);
      description.mask = std::uint64_t{1} << i;
      description.stopAction = [&stops, &gate] {
        if (++stops == 20) gate.Open();
        throw std::runtime_error("dropped");
      };
      scheduler.Submit(
          [&](Record* r) {
            gate.Pass(r);
            ++ended;
            return r;
          },
          nullptr, description);
    }
    ASSERT_TRUE(gate.WaitForArrivals(20));
    const auto neverRun = [](Record* r) {
      ADD_FAILURE() << "a task without its bit, or after the stop";
      return r;
    };
    ZrRinvalTaskDescription excluded;
    excluded.mask = 1;
    const std::uint64_t ready = scheduler.Submit(neverRun, nullptr, excluded);
    scheduler.Stop();
    EXPECT_EQ(ended, 20);
    EXPECT_TRUE(scheduler.IsDone(ready));
    EXPECT_TRUE(scheduler.IsDone(scheduler.Submit(neverRun, nullptr, Once())));
  }
  EXPECT_EQ(stops, 20);
}

TEST(Scheduler, SubmittersRaceWithTheStop) {
  for (int round = 0; round < 40; ++round) {
    ZrRinvalScheduler2 scheduler;
    std::atomic<int> submitted{0};
    std::vector<ZrThread> threads;
    for (int t = 0; t < 3; ++t) {
      threads.push_back(ZrThread::Start("submitter", [&, t] {
        for (int i = 0; i < 20; ++i) {
          const auto description = i % 2 == 0 ? Repeating(0) : Once();
          const std::uint64_t id =
              scheduler.Submit([](Record* r) { return r; }, nullptr, description);
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
  ZrRinvalScheduler2 scheduler;
  Gate run;
  std::atomic<bool> inAction{false};
  std::atomic<bool> leftAction{false};
  ZrRinvalTaskDescription description;
  std::uint64_t id = 0;
  description.stopAction = [&] {
    inAction = true;
    run.Open();
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

TEST(Scheduler, ATaskWithoutAThreadIsDoneAndTheNextOneRuns) {
  const auto task = [](Record* r) { return r; };
  for (int missing = 1; missing <= 3; ++missing) {
    for (auto description : {Once(), Repeating(0)}) {
      description.name = UnusedName();
      SCOPED_TRACE(missing);
      ZrRinvalScheduler2 scheduler;
      testing::internal::CaptureStderr();
      zr::FailThreadStart(missing);
      // The timer's thread, where there is one, and the run's.
      const bool fails = missing <= (description.kind == Record::kRepeat ? 2 : 1);
      const std::uint64_t id = scheduler.Submit(task, nullptr, description);
      zr::FailThreadStart(0);
      EXPECT_TRUE(scheduler.WaitDoneFor(id, 20s));
      EXPECT_EQ(scheduler.FetchResult(id) == nullptr, fails);
      const std::uint64_t next = scheduler.Submit(task, nullptr, description);
      EXPECT_TRUE(scheduler.WaitDoneFor(next, 20s));
      EXPECT_TRUE(scheduler.FetchResult(next));
      EXPECT_EQ(zrtest::CapturedErrors().starts_with("task \"" + description.name + "\": "), fails);
    }
  }
}

TEST(Scheduler, ALowPriorityEndsWithItsTask) {
  ZrRinvalScheduler2 scheduler;
  for (int run = 0; run < 3; ++run) {
    int nice = -1;
    const auto yield = [&nice](Record* record) {
      nice = getpriority(PRIO_PROCESS, static_cast<id_t>(gettid()));
      zr::YieldToOthers();
      return record;
    };
    scheduler.WaitDone(scheduler.Submit(yield, nullptr, Once()));
    EXPECT_EQ(nice, getpriority(PRIO_PROCESS, 0));
  }
}

TEST(Scheduler, ARepeatingTaskFindsAThreadAgain) {
  ZrRinvalScheduler2 scheduler;
  Gate gate;
  std::atomic<int> runs = 0;
  const std::uint64_t id = scheduler.Submit(
      [&runs](Record* r) {
        ++runs;
        return r;
      },
      nullptr, Repeating(5));
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
  gate.Open();
}

TEST(Scheduler, ARecordMayBeReturnedTwice) {
  class Counted : public Record {
   public:
    explicit Counted(std::atomic<int>& alive) : alive_(alive) { ++alive_; }
    ~Counted() override { --alive_; }

   private:
    std::atomic<int>& alive_;
  };
  std::atomic<int> alive = 0;
  std::atomic<int> runs = 0;
  {
    ZrRinvalScheduler2 scheduler;
    auto* const returned = new Counted(alive);
    returned->kind = Record::kRepeat;
    const std::uint64_t id = scheduler.Submit(
        [&](Record*) {
          ++runs;
          return returned;
        },
        nullptr, Repeating(0));
    EXPECT_TRUE(zrtest::WaitFor([&] { return runs >= 3; }));
    scheduler.Cancel(id);
    scheduler.WaitDone(id);
    EXPECT_EQ(scheduler.FetchResult(id).get(), returned);
  }
  EXPECT_EQ(alive, 0);
}

}  // namespace
