#include "jobs/job_registry.h"

#include <gtest/gtest.h>

#include <atomic>
#include <ctime>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
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
  /// A job with a task, without which it would get no events.
  template <class Job = RecordingJob>
  static std::shared_ptr<Job> Listed(RecordingJob::Handler handler = {}) {
    auto job = zr::MakeJob<Job>(std::move(handler));
    job->CreateJoinedTask("");
    return job;
  }
  void Send(const std::string& to, const ZrJobEvent& event, bool direct) {
    direct ? registry_.Deliver(to, event) : registry_.Post(to, event);
  }
  ZrJobRegistry& registry_ = ZrJobRegistry::Instance();
};

// Guests are heads and answering servers, which come and go without the registry's lock.
TEST_F(JobRegistry, TheLastMemberIsTold) {
  const auto owner = zr::MakeJob<RecordingJob>();
  auto member = zr::MakeJob<RecordingJob>();
  const std::string task = owner->CreateJoinedTask("pair");
  const ZrTaskHandle handle = registry_.Find(task);
  EXPECT_TRUE(member->Attach(task));
  EXPECT_TRUE(registry_.Leave(task, member->JobName()));
  const ZrJobEvent left = owner->Received(1).front();
  EXPECT_EQ(left.text, "kommt später");
  EXPECT_EQ(left.code, 6u);
  EXPECT_EQ(left.jobName, owner->JobName());
  ZrTaskGuest answering(handle);
  EXPECT_TRUE(answering.Leave());
  EXPECT_FALSE(answering.Leave());
  EXPECT_EQ(owner->Texts(2).back(), "kommt später");
  {
    const ZrTaskGuest head(handle);
    EXPECT_TRUE(member->Attach(task)) << "the task is there with its owner alone";
    member.reset();
    EXPECT_EQ(registry_.Count().events, 0u) << "the head lives";
  }
  EXPECT_EQ(owner->Texts(3).back(), "kommt später A");

  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i)
    threads.emplace_back([&handle] {
      for (int k = 0; k < 2000; ++k) ZrTaskGuest(ZrTaskGuest(handle)).Leave();
    });
  for (std::thread& thread : threads) thread.join();
  EXPECT_TRUE(registry_.TaskText(task));
  const ZrTaskGuest last(handle);
  EXPECT_TRUE(owner->LeaveJoinedTask(task));
  EXPECT_FALSE(registry_.Find(task));
  const ZrTaskGuest late(handle);  // of a task that has ended: leaves nothing behind
}

TEST_F(JobRegistry, TheOwnersNameClosesTheTaskInSilence) {
  for (const bool lives : {true, false}) {
    auto owner = zr::MakeJob<RecordingJob>();
    const std::string name = owner->JobName();
    const auto a = Listed();
    const auto b = zr::MakeJob<RecordingJob>();
    const std::string task = owner->CreateJoinedTask("closed");
    EXPECT_TRUE(registry_.Join(task, *b));
    if (!lives) {
      owner.reset();  // leaves like any member
      EXPECT_EQ(b->Texts(1).front(), "kommt später A");
    }
    EXPECT_TRUE(registry_.Join(task, *a));
    EXPECT_TRUE(registry_.Leave(task, name));
    EXPECT_FALSE(registry_.Leave(task, a->JobName()));
    EXPECT_FALSE(b->Attach(task));
    EXPECT_TRUE(registry_.Post(b->JobName(), Event("dropped: in no task any more")));
    EXPECT_TRUE(registry_.Post(a->JobName(), Event("still listed")));
    EXPECT_EQ(a->Texts(1), std::vector<std::string>{"still listed"});
    EXPECT_EQ(b->Received(0).size(), lives ? 0u : 1u);
  }
}

// A part of the most derived class that a handler uses from beginning to end.
class FragileJob : public RecordingJob {
 public:
  using RecordingJob::RecordingJob;
  ~FragileJob() override { text_.clear(); }
  bool ReceiveEvent(const ZrJobEvent& event) override ZR_REQUIRES(lock_) {
    RecordingJob::ReceiveEvent(event);
    for (char& c : text_) c = static_cast<char>(c ^ 1);
    EXPECT_EQ(text_.size(), 4096u);
    return true;
  }

 private:
  std::string text_ = std::string(4096, 'x');
};

TEST_F(JobRegistry, EventsAreDeliveredHereAtOnceAndInOrder) {
  const auto job = Listed();
  const auto other = Listed();
  const auto batch = [](const char* first, const char* second) {
    return std::vector<ZrJobEvent>{Event(first), Event(second)};
  };
  EXPECT_TRUE(registry_.Deliver(job->JobName(), batch("a", "b")));
  registry_.Deliver(job->JobName(), Event("c"));
  EXPECT_EQ(job->Received(0).size(), 3u) << "on this thread";
  {
    // Busy: they wait, and what comes later waits behind them.
    const ZrLock busy(job->Lock());
    ZrThread::Start("sender", [&] {
      registry_.Deliver(job->JobName(), batch("d", "e"));
      registry_.Deliver(job->JobName(), Event("f"));
    }).Join();
    registry_.Post(job->JobName(), Event("g"));
    registry_.Deliver(job->JobName(), Event("h"));  // under its own lock, too
    registry_.Post(other->JobName(), Event("x"));
    EXPECT_EQ(other->Received(1).size(), 1u) << "only its own wait";
    // Nobody asks again and again whether the job is free. The wait is for time that must pass.
    const std::clock_t before = std::clock();
    EXPECT_EQ(job->Received(4, std::chrono::milliseconds(300)).size(), 3u);
    EXPECT_LT(std::clock() - before, CLOCKS_PER_SEC / 10);
  }
  EXPECT_EQ(job->Texts(8), (std::vector<std::string>{"a", "b", "c", "d", "e", "f", "g", "h"}));
  EXPECT_TRUE(registry_.Deliver("nobody", batch("i", "j")));
  // One that retires at its first event gets no second one, and joins nothing.
  RecordingJob* self = nullptr;
  const auto retiring = Listed([&](const ZrJobEvent&) { self->Retire(); });
  self = retiring.get();
  registry_.Deliver(retiring->JobName(), batch("k", "l"));
  EXPECT_EQ(retiring->Received(0).size(), 1u);
  EXPECT_FALSE(retiring->Attach(job->CreateJoinedTask("")));
  EXPECT_EQ(retiring->CreateJoinedTask(""), "");
}

TEST_F(JobRegistry, AJobMayDropItselfFromItsOwnEvent) {
  for (const bool direct : {false, true}) {
    std::atomic<bool> dropped{false};
    std::shared_ptr<FragileJob> last;
    last = Listed<FragileJob>([&](const ZrJobEvent&) {
      last.reset();
      dropped = true;
    });
    const std::string name = last->JobName();
    Send(name, Event("end"), direct);
    EXPECT_TRUE(zrtest::WaitFor([&dropped] { return dropped.load(); }));
    registry_.WaitForReaper();
  }
}

TEST_F(JobRegistry, ADestructorOnADeliveringThreadMayWait) {
  // The dropped job's own delivery is held up by the very event that drops it.
  std::atomic<bool> entered{false};
  std::atomic<bool> dropped{false};
  auto victim = Listed<FragileJob>([&](const ZrJobEvent&) {
    entered = true;
    EXPECT_TRUE(zrtest::WaitFor([&dropped] { return dropped.load(); }));
  });
  const auto dropper = Listed([&](const ZrJobEvent&) {
    victim.reset();
    dropped = true;
  });
  const std::string name = victim->JobName();
  const ZrThread inlineDelivery =
      ZrThread::Start("inline", [this, name] { registry_.Deliver(name, Event("held up")); });
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
        Send(to, Event("fire"), direct);
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

// Each sender's events arrive in the order in which it sent them, whichever way they take, one by
// one or several at once.
TEST_F(JobRegistry, OrderHoldsForManySenders) {
  constexpr int kSenders = 3;
  constexpr std::uint32_t kEach = 400;
  const auto job = Listed([](const ZrJobEvent& event) {
    if (event.code % 9 == 0) throw std::runtime_error("dropped");
  });
  {
    std::vector<ZrThread> threads;
    for (int s = 0; s < kSenders; ++s) {
      threads.push_back(ZrThread::Start("sender", [&, s] {
        ZrJobEvent event = Event(std::to_string(s));
        std::vector<ZrJobEvent> batch;
        for (event.code = 0; event.code < kEach; ++event.code) {
          if (event.code % 4 < 2) {
            Send(job->JobName(), event, event.code % 4 == 0);
          } else if (batch.push_back(event); event.code % 4 == 3) {
            registry_.Deliver(job->JobName(), std::exchange(batch, {}));
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
