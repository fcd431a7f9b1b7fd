#include "jobs/job_registry.h"

#include <gtest/gtest.h>

#include <atomic>
#include <ctime>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "jobs/task_guest.h"
#include "platform/thread.h"
#include "tests/jobs/recording_job.h"

namespace {

using zrtest::Event;
using zrtest::RecordingJob;

// Every test leaves the registry as it found it.
class JobRegistry : public testing::Test {
 protected:
  void TearDown() override {
    registry_.WaitForReaper();
    EXPECT_TRUE(zrtest::WaitFor([this] { return registry_.Count().events == 0; }));
    EXPECT_EQ(registry_.Count().jobs, 0u);
    EXPECT_EQ(registry_.Count().tasks, 0u);
  }
  ZrJobRegistry& registry_ = ZrJobRegistry::Instance();
};

TEST_F(JobRegistry, TheLastMemberIsTold) {
  const auto owner = zr::MakeJob<RecordingJob>();
  auto member = zr::MakeJob<RecordingJob>();
  const std::string task = owner->CreateJoinedTask("pair");
  EXPECT_TRUE(member->Attach(task));
  EXPECT_TRUE(registry_.Leave(task, member->JobName()));
  const ZrJobEvent left = owner->Received(1).front();
  EXPECT_EQ(left.text, "kommt später");
  EXPECT_EQ(left.code, 6u);
  EXPECT_EQ(left.jobName, owner->JobName());

  EXPECT_TRUE(member->Attach(task)) << "the task is there with its owner alone";
  member.reset();
  EXPECT_EQ(owner->Texts(2).back(), "kommt später A");
}

// Heads and answering servers come and go without the registry's lock.
TEST_F(JobRegistry, GuestsCountAndTheLastMemberIsToldOfTheirEnd) {
  const auto owner = zr::MakeJob<RecordingJob>();
  const std::string task = owner->CreateJoinedTask("guests");
  const ZrTaskHandle handle = registry_.Find(task);
  ZrTaskGuest answering(handle);
  EXPECT_TRUE(answering.Leave());
  EXPECT_FALSE(answering.Leave());
  EXPECT_EQ(owner->Texts(1).back(), "kommt später");
  {
    auto member = zr::MakeJob<RecordingJob>();
    const ZrTaskGuest head(handle);
    EXPECT_TRUE(member->Attach(task));
    member.reset();
    EXPECT_EQ(registry_.Count().events, 0u) << "the head lives";
  }
  EXPECT_EQ(owner->Texts(2).back(), "kommt später A");

  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i)
    threads.emplace_back([&handle] {
      for (int k = 0; k < 2000; ++k) ZrTaskGuest(ZrTaskGuest(handle)).Leave();
    });
  for (std::thread& thread : threads) thread.join();
  EXPECT_TRUE(registry_.TaskText(task));
  const ZrTaskGuest left(handle);
  EXPECT_TRUE(owner->LeaveJoinedTask(task));
  EXPECT_FALSE(registry_.Find(task));
  const ZrTaskGuest late(handle);  // of a task that has ended: leaves nothing behind
}

TEST_F(JobRegistry, TheOwnerClosesTheTaskInSilence) {
  const auto owner = zr::MakeJob<RecordingJob>();
  const auto a = zr::MakeJob<RecordingJob>();
  const auto b = zr::MakeJob<RecordingJob>();
  const std::string task = owner->CreateJoinedTask("closed");
  a->CreateJoinedTask("kept");
  EXPECT_TRUE(registry_.Join(task, *a));
  EXPECT_TRUE(registry_.Join(task, *b));
  EXPECT_TRUE(owner->LeaveJoinedTask(task));
  EXPECT_FALSE(registry_.Leave(task, a->JobName()));
  EXPECT_FALSE(b->Attach(task));
  EXPECT_TRUE(registry_.Post(b->JobName(), Event("dropped: in no task any more")));
  EXPECT_TRUE(registry_.Post(a->JobName(), Event("still listed")));
  EXPECT_EQ(a->Texts(1), std::vector<std::string>{"still listed"});
  EXPECT_TRUE(b->Received(0).empty());
}

TEST_F(JobRegistry, TasksOutliveAnOwnerThatLeavesAll) {
  auto owner = zr::MakeJob<RecordingJob>();
  const auto member = zr::MakeJob<RecordingJob>();
  const std::string ownerName = owner->JobName();
  const std::string task = owner->CreateJoinedTask("orphan");
  EXPECT_TRUE(member->Attach(task));
  owner.reset();
  EXPECT_EQ(member->Texts(1).front(), "kommt später A");
  EXPECT_TRUE(member->Attach(task));
  EXPECT_TRUE(registry_.Leave(task, ownerName)) << "its name still closes the task";
  EXPECT_FALSE(member->Attach(task));
}

TEST_F(JobRegistry, ABusyJobDelaysOnlyItsOwnEvents) {
  const auto busy = zr::MakeJob<RecordingJob>();
  const auto other = zr::MakeJob<RecordingJob>();
  busy->CreateJoinedTask("");
  other->CreateJoinedTask("");
  {
    const ZrLock hold(busy->Lock());
    registry_.Post(busy->JobName(), Event("1"));
    registry_.Post(other->JobName(), Event("a"));
    EXPECT_EQ(other->Texts(1).size(), 1u);
    registry_.Deliver(busy->JobName(), Event("2"));
    registry_.Post(busy->JobName(), Event("3"));
    registry_.Post(other->JobName(), Event("b"));
    EXPECT_EQ(other->Texts(2).size(), 2u);
    EXPECT_TRUE(busy->Received(0).empty());
    // Nobody asks again and again whether the job is free. The wait is for time that must pass.
    const std::clock_t before = std::clock();
    EXPECT_EQ(other->Received(3, std::chrono::milliseconds(300)).size(), 2u);
    EXPECT_LT(std::clock() - before, CLOCKS_PER_SEC / 10);
  }
  EXPECT_EQ(busy->Texts(3), (std::vector<std::string>{"1", "2", "3"}));
}

TEST_F(JobRegistry, DeliverRunsHereWhenNothingStandsBefore) {
  std::thread::id ranOn;
  const auto job = zr::MakeJob<RecordingJob>(
      [&ranOn](const ZrJobEvent&) { ranOn = std::this_thread::get_id(); });
  job->CreateJoinedTask("");
  registry_.Deliver(job->JobName(), Event("inline"));
  EXPECT_EQ(ranOn, std::this_thread::get_id());
  // Under the receiver's own lock it is queued.
  {
    const ZrLock hold(job->Lock());
    registry_.Deliver(job->JobName(), Event("under its lock"));
    EXPECT_EQ(job->Received(0).size(), 1u);
  }
  EXPECT_EQ(job->Texts(2).back(), "under its lock");
  const ZrLock hold(job->Lock());
  EXPECT_NE(ranOn, std::this_thread::get_id());
}

// A part of the most derived class that a handler uses from beginning to end.
class FragileJob : public RecordingJob {
 public:
  using RecordingJob::RecordingJob;
  ~FragileJob() override {
    text_.clear();
    ended_ = true;
  }
  bool ReceiveEvent(const ZrJobEvent& event) override ZR_REQUIRES(lock_) {
    RecordingJob::ReceiveEvent(event);
    for (char& c : text_) c = static_cast<char>(c ^ 1);
    EXPECT_FALSE(ended_);
    return true;
  }

 private:
  std::string text_ = std::string(4096, 'x');
  bool ended_ = false;
};

TEST_F(JobRegistry, SeveralEventsAreDeliveredAtOnceAndInOrder) {
  const auto job = zr::MakeJob<RecordingJob>();
  job->CreateJoinedTask("");
  const auto batch = [](const char* first, const char* second) {
    std::vector<ZrJobEvent> events;
    for (const char* text : {first, second}) events.push_back(Event(text));
    return events;
  };
  EXPECT_TRUE(registry_.Deliver(job->JobName(), batch("a", "b")));
  EXPECT_EQ(job->Received(0).size(), 2u) << "on this thread";
  {
    // Busy: they wait, and what comes later waits behind them.
    const ZrLock busy(job->Lock());
    ZrThread::Start("sender", [&] {
      registry_.Deliver(job->JobName(), batch("c", "d"));
      registry_.Deliver(job->JobName(), Event("e"));
    }).Join();
    EXPECT_EQ(job->Received(0).size(), 2u);
  }
  EXPECT_EQ(job->Texts(5), (std::vector<std::string>{"a", "b", "c", "d", "e"}));
  EXPECT_TRUE(registry_.Deliver("nobody", batch("f", "g")));
  // One that retires at its first event gets no second one.
  RecordingJob* self = nullptr;
  const auto retiring = zr::MakeJob<RecordingJob>([&](const ZrJobEvent&) { self->Retire(); });
  self = retiring.get();
  retiring->CreateJoinedTask("");
  registry_.Deliver(retiring->JobName(), batch("h", "i"));
  EXPECT_EQ(retiring->Received(0).size(), 1u);
}

TEST_F(JobRegistry, AJobMayDropItselfFromItsOwnEvent) {
  for (const bool direct : {false, true}) {
    std::atomic<bool> dropped{false};
    std::shared_ptr<FragileJob> last;
    last = zr::MakeJob<FragileJob>([&](const ZrJobEvent&) {
      last.reset();
      dropped = true;
    });
    last->CreateJoinedTask("");
    const std::string name = last->JobName();
    if (direct) {
      registry_.Deliver(name, Event("end"));
    } else {
      registry_.Post(name, Event("end"));
    }
    EXPECT_TRUE(zrtest::WaitFor([&dropped] { return dropped.load(); }));
    registry_.WaitForReaper();
  }
}

TEST_F(JobRegistry, ADestructorOnADeliveringThreadMayWait) {
  // The dropped job's own delivery is held up by the very event that drops it.
  std::atomic<bool> entered{false};
  std::atomic<bool> dropped{false};
  auto victim = zr::MakeJob<FragileJob>([&](const ZrJobEvent&) {
    entered = true;
    EXPECT_TRUE(zrtest::WaitFor([&dropped] { return dropped.load(); }));
  });
  victim->CreateJoinedTask("");
  const auto dropper = zr::MakeJob<RecordingJob>([&](const ZrJobEvent&) {
    victim.reset();
    dropped = true;
  });
  dropper->CreateJoinedTask("");
  const std::string name = victim->JobName();
  ZrThread inlineDelivery = ZrThread::Start(
      "inline", [name] { ZrJobRegistry::Instance().Deliver(name, Event("held up")); });
  EXPECT_TRUE(zrtest::WaitFor([&entered] { return entered.load(); }));
  registry_.Post(dropper->JobName(), Event("drop"));
  EXPECT_TRUE(zrtest::WaitFor([&dropped] { return dropped.load(); }));
}

TEST_F(JobRegistry, JobsEndUnderFire) {
  ZrMutex mutex;
  std::string name;
  std::atomic<bool> done{false};
  std::vector<ZrThread> senders;
  for (const bool direct : {true, false, false}) {
    senders.push_back(ZrThread::Start("sender", [&, direct] {
      while (!done) {
        std::string to;
        {
          const ZrLock hold(mutex);
          to = name;
        }
        if (direct) {
          ZrJobRegistry::Instance().Deliver(to, Event("direct"));
        } else {
          ZrJobRegistry::Instance().Post(to, Event("posted"));
        }
        std::this_thread::yield();
      }
    }));
  }
  const auto owner = zr::MakeJob<RecordingJob>();
  const std::string task = owner->CreateJoinedTask("under fire");
  std::vector<std::shared_ptr<FragileJob>> jobs(4);
  for (std::size_t i = 0; i < 300; ++i) {
    auto& slot = jobs[i % jobs.size()];
    slot = zr::MakeJob<FragileJob>();
    slot->Attach(task);
    {
      const ZrLock hold(mutex);
      name = slot->JobName();
    }
    if (i % 5 == 0) slot->Received(1);
    if (i % 7 == 0) slot->Detach("");
    const ZrLock hold(slot->Lock());  // a busy moment
  }
  done = true;
  senders.clear();
}

// Each sender's events arrive in the order in which it sent them, whichever way they take.
TEST_F(JobRegistry, OrderHoldsForManySenders) {
  constexpr int kSenders = 3;
  constexpr int kEach = 400;
  const auto job = zr::MakeJob<RecordingJob>([](const ZrJobEvent& event) {
    if (event.code % 9 == 0) throw std::runtime_error("dropped");
  });
  job->CreateJoinedTask("");
  {
    std::vector<ZrThread> threads;
    for (int s = 0; s < kSenders; ++s) {
      threads.push_back(ZrThread::Start("sender", [&job, s] {
        for (int i = 0; i < kEach; ++i) {
          ZrJobEvent event = Event(std::to_string(s));
          event.code = static_cast<std::uint32_t>(i);
          if (i % 2 == 0) {
            ZrJobRegistry::Instance().Deliver(job->JobName(), event);
          } else {
            ZrJobRegistry::Instance().Post(job->JobName(), event);
          }
        }
      }));
    }
    for (int i = 0; i < 200; ++i) {
      const ZrLock hold(job->Lock());
      std::this_thread::yield();
    }
  }
  std::vector<std::uint32_t> next(kSenders);
  for (const ZrJobEvent& event : job->Received(std::size_t{kSenders} * kEach)) {
    EXPECT_EQ(event.code, next[std::stoul(event.text)]++);
  }
  EXPECT_EQ(next, std::vector<std::uint32_t>(kSenders, kEach));
}

}  // namespace
