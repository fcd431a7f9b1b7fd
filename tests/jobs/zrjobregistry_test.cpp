#include "jobs/zrjobregistry.h"

#include <gtest/gtest.h>

#include <atomic>
#include <ctime>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "platform/zrthread.h"
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
  EXPECT_FALSE(registry_.Leave(task, member->JobName()));
  const ZrJobEvent left = owner->Received(1).front();
  EXPECT_EQ(left.text, "kommt später");
  EXPECT_EQ(left.code, 6u);
  EXPECT_EQ(left.jobName, owner->JobName());

  EXPECT_TRUE(member->Attach(task)) << "the task is there with its owner alone";
  member.reset();
  EXPECT_EQ(owner->Texts(2).back(), "kommt später A");
  EXPECT_TRUE(owner->LeaveJoinedTask(task));
  EXPECT_FALSE(owner->LeaveJoinedTask(task));
}

TEST_F(JobRegistry, TheOwnerClosesTheTaskInSilence) {
  const auto owner = zr::MakeJob<RecordingJob>();
  const auto a = zr::MakeJob<RecordingJob>();
  const auto b = zr::MakeJob<RecordingJob>();
  const std::string task = owner->CreateJoinedTask("closed");
  const std::string kept = a->CreateJoinedTask("kept");
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
    // Nobody asks again and again whether the job is free.
    const std::clock_t before = std::clock();
    ZrMutex mutex;
    ZrCondition never;
    const ZrLock wait(mutex);
    never.WaitFor(mutex, std::chrono::milliseconds(300), [] { return false; });
    EXPECT_LT(std::clock() - before, CLOCKS_PER_SEC / 10);
  }
  EXPECT_EQ(busy->Texts(3), (std::vector<std::string>{"1", "2", "3"}));
}

TEST_F(JobRegistry, NewEventsStayBehindThoseThatMeetABusyJobLater) {
  std::atomic<int> entered{0};
  std::atomic<int> opened{0};
  const auto blocker = zr::MakeJob<RecordingJob>([&](const ZrJobEvent&) {
    const int turn = ++entered;
    EXPECT_TRUE(zrtest::WaitFor([&] { return opened >= turn; }));
  });
  const auto busy = zr::MakeJob<RecordingJob>();
  busy->CreateJoinedTask("");
  blocker->CreateJoinedTask("");
  {
    const ZrLock hold(busy->Lock());
    registry_.Post(blocker->JobName(), Event(""));
    EXPECT_TRUE(zrtest::WaitFor([&] { return entered == 1; }));
    registry_.Post(busy->JobName(), Event("1"));
    registry_.Post(blocker->JobName(), Event(""));
    registry_.Post(busy->JobName(), Event("2"));
    opened = 1;
    EXPECT_TRUE(zrtest::WaitFor([&] { return entered == 2; }));
    // The delivery thread has met the first event, not the second.
    registry_.Post(busy->JobName(), Event("3"));
    registry_.Deliver(busy->JobName(), Event("4"));
    opened = 2;
  }
  EXPECT_EQ(busy->Texts(4), (std::vector<std::string>{"1", "2", "3", "4"}));
}

TEST_F(JobRegistry, DeliverRunsHereWhenNothingStandsBefore) {
  std::thread::id ranOn;
  const auto job = zr::MakeJob<RecordingJob>(
      [&ranOn](const ZrJobEvent&) { ranOn = std::this_thread::get_id(); });
  job->CreateJoinedTask("");
  registry_.Deliver(job->JobName(), Event("inline"));
  EXPECT_EQ(ranOn, std::this_thread::get_id());
  // From inside a delivery, and under the receiver's own lock, it is queued.
  const auto outer = zr::MakeJob<RecordingJob>([&](const ZrJobEvent&) {
    ZrJobRegistry::Instance().Deliver(job->JobName(), Event("nested"));
  });
  outer->CreateJoinedTask("");
  registry_.Deliver(outer->JobName(), Event(""));
  job->Received(2);
  {
    const ZrLock hold(job->Lock());
    registry_.Deliver(job->JobName(), Event("under its lock"));
    EXPECT_EQ(job->Received(0).size(), 2u);
  }
  EXPECT_EQ(job->Texts(3).back(), "under its lock");
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

TEST_F(JobRegistry, AJobMayDropItselfFromItsOwnEvent) {
  for (const bool direct : {false, true}) {
    std::atomic<bool> dropped{false};
    std::shared_ptr<FragileJob> last;
    last = zr::MakeJob<FragileJob>([&](const ZrJobEvent&) {
      last.reset();
      dropped = true;
    });
    last->CreateJoinedTask("");
    const std::weak_ptr<FragileJob> watch = last;
    const std::string name = last->JobName();
    if (direct) {
      registry_.Deliver(name, Event("end"));
    } else {
      registry_.Post(name, Event("end"));
    }
    EXPECT_TRUE(zrtest::WaitFor([&dropped] { return dropped.load(); }));
    EXPECT_TRUE(watch.expired());
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
  constexpr int kSenders = 3;
  constexpr int kLives = 300;
  ZrMutex mutex;
  std::vector<std::string> names(4);
  std::atomic<bool> done{false};
  std::vector<ZrThread> senders;
  for (int s = 0; s < kSenders; ++s) {
    senders.push_back(ZrThread::Start("sender", [&, s] {
      for (unsigned i = 0; !done; ++i) {
        std::string name;
        {
          const ZrLock hold(mutex);
          name = names[i % names.size()];
        }
        if (s == 0) {
          ZrJobRegistry::Instance().Deliver(name, Event("direct"));
        } else {
          ZrJobRegistry::Instance().Post(name, Event("posted"));
        }
        std::this_thread::yield();
      }
    }));
  }
  const auto owner = zr::MakeJob<RecordingJob>();
  const std::string task = owner->CreateJoinedTask("under fire");
  std::vector<std::shared_ptr<FragileJob>> jobs(names.size());
  for (int i = 0; i < kLives; ++i) {
    auto& slot = jobs[static_cast<std::size_t>(i) % jobs.size()];
    slot = zr::MakeJob<FragileJob>();
    slot->Attach(task);
    {
      const ZrLock hold(mutex);
      names[static_cast<std::size_t>(i) % names.size()] = slot->JobName();
    }
    if (i % 5 == 0) slot->Received(1);
    if (i % 7 == 0) slot->Detach("");
    const ZrLock hold(slot->Lock());  // a busy moment
  }
  done = true;
  senders.clear();
  jobs.clear();
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
