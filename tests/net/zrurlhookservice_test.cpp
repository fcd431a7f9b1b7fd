// The pool by itself: its workers only note what they are given.

#include "net/zrurlhookservice.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "http/zrtransceiver.h"
#include "http/zrxheader.h"
#include "jobs/zrscheduler.h"
#include "tests/jobs/recording_job.h"
#include "tests/support/manual_clock.h"
#include "tests/support/wait.h"

using zrtest::WaitFor;

namespace {

class PoolTest;

class NotingWorker : public ZrTransceiverServerL0 {
 public:
  NotingWorker(PoolTest& test, ZrRinvalScheduler2& scheduler, ZrTransceiver& transceiver,
               const std::string& clientName, const std::string& headName,
               const std::string& ownerName, const ZrServerCallback& callback)
      : ZrTransceiverServerL0(scheduler, transceiver, clientName, headName, ownerName, callback),
        test_(test) {
    persistent_ = false;
  }
  bool start() override;
  bool SendHead(const std::string& connectionName, const std::shared_ptr<ZrXHeader>& head) override;
  void stop() override {}

 private:
  PoolTest& test_;
};

class PoolTest : public testing::Test {
 public:
  struct Given {
    std::string worker;
    std::string head;
  };

 protected:
  PoolTest() { task_ = sender_.CreateJoinedTask("sender"); }
  ~PoolTest() override {
    Release();
    pool_->EndTasks();
    sender_.Retire();
  }
  friend class NotingWorker;

  std::shared_ptr<ZrXHeader> Head() {
    auto head = zr::MakeJob<ZrXHeader>(ZrMessageType::kGet, zr::kProtocolHttp);
    head->kind = ZrMessageKind::kRequest;
    return head;
  }
  /// Submits a request and returns its name.
  std::string Submit() {
    const auto head = Head();
    bool startFailed = false;
    pool_->submit(head, startFailed, false);
    return head->JobName();
  }
  void Tell(std::uint32_t code, const std::string& worker,
            std::map<std::string, std::string> fields = {}) {
    ZrJobEvent event;
    event.code = code;
    event.jobName = worker;
    event.fields = std::move(fields);
    ZrLock hold(pool_->Lock());
    pool_->ReceiveEvent(event);
  }
  std::vector<Given> GivenAfter(std::size_t count) {
    WaitFor([&] { return Given_().size() >= count; });
    return Given_();
  }
  std::vector<Given> Given_() {
    ZrLock hold(lock_);
    return given_;
  }
  std::vector<std::string> FailedAfter(std::size_t count) {
    std::vector<std::string> reasons;
    WaitFor([&] {
      ZrLock hold(lock_);
      reasons = failed_;
      return failed_.size() >= count;
    });
    return reasons;
  }
  /// Starts wait until they are released, and then fail or not.
  void HoldStarts(bool fail) {
    ZrLock hold(lock_);
    holdStarts_ = true;
    failStarts_ = fail;
  }
  void Release() {
    ZrLock hold(lock_);
    holdStarts_ = false;
    released_.NotifyAll();
  }
  bool Start() {
    ZrLock hold(lock_);
    ++starts_;
    released_.Wait(lock_, [this]() ZR_REQUIRES(lock_) { return !holdStarts_; });
    return !failStarts_;
  }
  int Starts() {
    ZrLock hold(lock_);
    return starts_;
  }
  void FailSends(bool fail) {
    ZrLock hold(lock_);
    failSends_ = fail;
  }

  ZrMutex lock_;
  ZrCondition released_;
  std::vector<Given> given_ ZR_GUARDED_BY(lock_);
  std::vector<std::string> failed_ ZR_GUARDED_BY(lock_);
  bool holdStarts_ ZR_GUARDED_BY(lock_) = false;
  bool failStarts_ ZR_GUARDED_BY(lock_) = false;
  int starts_ ZR_GUARDED_BY(lock_) = 0;
  bool failSends_ ZR_GUARDED_BY(lock_) = false;

  zrtest::ManualClock clock_;
  zrtest::RecordingJob sender_;
  std::string task_;
  ZrRinvalScheduler2 scheduler_;
  ZrTransceiver transceiver_{scheduler_, {}, clock_};
  std::shared_ptr<ZrURLHookService> pool_ = zr::MakeServer<ZrURLHookService>(
      scheduler_, transceiver_, sender_.JobName(),
      [this](ZrServerCallback_t& record) {
        if (record.kind != ZrServerCallback_t::kRequestFailed) return true;
        ZrLock hold(lock_);
        failed_.push_back(record.info.Get("reason"));
        return true;
      },
      [this](ZrRinvalScheduler2& scheduler, ZrTransceiver& transceiver,
             const std::string& clientName, const std::string& headName,
             const std::shared_ptr<ZrXHeader>&, const std::string& ownerName,
             const ZrServerCallback&) -> std::shared_ptr<ZrTransceiverServerL0> {
        return zr::MakeServer<NotingWorker>(*this, scheduler, transceiver, clientName, headName,
                                            ownerName, ZrServerCallback());
      },
      "owner");
};

bool NotingWorker::start() { return test_.Start(); }

bool NotingWorker::SendHead(const std::string&, const std::shared_ptr<ZrXHeader>& head) {
  ZrLock hold(test_.lock_);
  test_.given_.push_back({JobName(), head->JobName()});
  if (test_.failSends_) throw std::bad_function_call();
  return true;
}

TEST_F(PoolTest, RequestsBeyondTenWaitAndGoOutInOrder) {
  std::vector<std::string> names;
  for (int i = 0; i < 13; ++i) names.push_back(Submit());
  EXPECT_EQ(Starts(), 10);
  EXPECT_EQ(pool_->waitingCount(), 3u);
  EXPECT_EQ(pool_->load(), 13u);

  const std::string busy = Given_()[4].worker;
  for (std::size_t next = 10; next < 13; ++next) {
    Tell(kZrEventWorkerDone, busy);
    const auto given = GivenAfter(next + 1);
    ASSERT_EQ(given.size(), next + 1);
    EXPECT_EQ(given.back().worker, busy);
    EXPECT_EQ(given.back().head, names[next]);
  }
  Tell(kZrEventWorkerDone, busy);
  EXPECT_EQ(pool_->load(), 9u);
  EXPECT_EQ(Starts(), 10);
}

TEST_F(PoolTest, AFinishedTaskIsPassedOnToTheSender) {
  Submit();
  Tell(kZrEventWorkerDone, Given_()[0].worker, {{"ctask", "joinedtask*1"}});
  const auto events = sender_.Received(1);
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].code, std::uint32_t{kZrEventLastMember});
  EXPECT_EQ(events[0].fields.at("ctask"), "joinedtask*1");
}

TEST_F(PoolTest, AnIdleWorkerPastItsTimeIsReplaced) {
  Submit();
  const std::string first = Given_()[0].worker;
  Tell(kZrEventWorkerDone, first);
  clock_.Advance(std::chrono::seconds(121));
  Submit();
  ASSERT_EQ(Given_().size(), 2u);
  EXPECT_NE(Given_()[1].worker, first);
  EXPECT_EQ(pool_->load(), 1u);
}

TEST_F(PoolTest, AWorkerThatDropsOutMakesRoomForAWaitingRequest) {
  struct Case {
    const char* name;
    std::uint32_t code;
    bool resent;  // what the worker had goes out once more, before the one that waits
  };
  const Case cases[] = {{"its time limit", kZrEventTimeLimit, false},
                        {"no answer", kZrEventUnanswered, true}};
  for (int i = 0; i < 10; ++i) Submit();
  std::size_t given = 10;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const auto dropped = Given_()[c.resent ? 1 : 0];
    const std::string waiting = Submit();
    EXPECT_EQ(pool_->waitingCount(), 1u);
    Tell(c.code, dropped.worker, {{"reason", "connection closed"}, {"resend", "yes"}});
    given += 1;
    ASSERT_EQ(GivenAfter(given).size(), given);
    EXPECT_EQ(Given_().back().head, c.resent ? dropped.head : waiting);
    EXPECT_NE(Given_().back().worker, dropped.worker);
  }
  EXPECT_EQ(FailedAfter(1), std::vector<std::string>{"timed out"});
  EXPECT_EQ(pool_->waitingCount(), 1u);
}

TEST_F(PoolTest, ARequestIsSentTwiceAtMost) {
  const std::string head = Submit();
  for (std::size_t attempt = 1; attempt <= 2; ++attempt) {
    const auto given = GivenAfter(attempt);
    ASSERT_EQ(given.size(), attempt);
    EXPECT_EQ(given.back().head, head);
    Tell(kZrEventUnanswered, given.back().worker,
         {{"reason", "connection closed"}, {"error", ""}, {"resend", "yes"}});
  }
  EXPECT_EQ(FailedAfter(1), std::vector<std::string>{"connection closed"});
  const auto events = sender_.Received(1);
  EXPECT_EQ(events.at(0).fields.at("head"), head);
  EXPECT_EQ(events.at(0).fields.at("reason"), "connection closed");
  EXPECT_EQ(pool_->load(), 0u);
}

// As an owner's callback does that fails when it is told of the request that went out.
TEST_F(PoolTest, ASendThatThrowsHoldsNobodyUp) {
  for (int i = 0; i < 12; ++i) Submit();
  FailSends(true);
  Tell(kZrEventWorkerDone, Given_()[0].worker);
  ASSERT_EQ(GivenAfter(11).size(), 11u);
  FailSends(false);
  Tell(kZrEventWorkerDone, Given_()[1].worker);
  EXPECT_EQ(GivenAfter(12).size(), 12u);
}

TEST_F(PoolTest, StartsHoldNothingUpAndTheirFailureIsTold) {
  HoldStarts(true);
  std::vector<std::thread> senders;
  std::atomic<int> refused{0};
  for (int i = 0; i < 10; ++i) {
    senders.emplace_back([this, &refused] {
      bool startFailed = false;
      const auto head = Head();
      if (pool_->submit(head, startFailed, false) == head && startFailed) ++refused;
    });
  }
  ASSERT_TRUE(WaitFor([&] { return Starts() == 10; }));
  // All places are taken by starts that hang; the pool answers all the same.
  Submit();
  Submit();
  EXPECT_EQ(pool_->waitingCount(), 2u);
  EXPECT_EQ(pool_->load(), 12u);
  Release();
  for (std::thread& sender : senders) sender.join();
  EXPECT_EQ(refused, 10);
  // Those that waited got their own attempts.
  EXPECT_EQ(FailedAfter(12).size(), 12u);
  EXPECT_EQ(Starts(), 12);
  EXPECT_EQ(pool_->load(), 0u);
}

TEST_F(PoolTest, WithoutAFactoryTheCallThrows) {
  const auto pool = zr::MakeServer<ZrURLHookService>(scheduler_, transceiver_, sender_.JobName(),
                                                     ZrServerCallback(), nullptr, "owner");
  bool startFailed = false;
  EXPECT_THROW(pool->submit(Head(), startFailed, false), std::bad_function_call);
  EXPECT_EQ(pool->load(), 0u);
}

}  // namespace
