#include "transceiver/io_team.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <thread>

#include "tests/support/raw_client.h"
#include "tests/transceiver/transceiver_bed.h"

namespace {

using namespace zrtest;

constexpr std::int64_t kMs = 1'000'000;
constexpr std::size_t kConnections = 8;

/// A team whose connections all have unread input, so that its threads never wait, and whose use of
/// the processor is what the test says.
class IoTeam : public testing::TestWithParam<ZrIoLane::Direction> {
 protected:
  void Run(ZrIoTeamSize size) {
    team_ = std::make_unique<ZrIoTeam>(
        GetParam(), "team", size, [this](ZrIoTeam::Member& member) { Serve(member); },
        ZrIoTeamMeter{.now = [this] { return now_ += kMs; }, .cpuNs = [this] { return Used(); }});
    for (std::size_t i = 0; i < kConnections; ++i) Connect();
    team_->Begin();
    thread_ = std::thread([this] { team_->Run(); });
  }
  void TearDown() override {
    team_->Stop();
    thread_.join();
    EXPECT_EQ(threads_, 0);
    for (const auto& registration : registrations_) {
      ZrLock hold(registration->connection->Lock());
      registration->connection->Bind(nullptr);
      Side(*registration).lane->Leave(*registration);
    }
  }
  ZrIoRegistration::Direction& Side(ZrIoRegistration& registration) const {
    return GetParam() == ZrIoLane::Direction::kInput ? registration.input : registration.output;
  }
  bool WaitForThreads(int count) {
    return WaitFor([&] { return threads_ == count; });
  }
  /// Serving threads, and connections whose thread is not the job's own.
  std::atomic<int> threads_{0};
  std::size_t HandedOver() {
    std::size_t count = 0;
    for (const auto& registration : registrations_) {
      ZrLock hold(registration->connection->Lock());
      count += Side(*registration).lane != team_->First() ? 1u : 0u;
    }
    return count;
  }
  // In thousandths of a core.
  std::atomic<int> firstUses_{1000};
  std::atomic<int> helpersUse_{1000};
  std::unique_ptr<ZrIoTeam> team_;

 private:
  void Serve(ZrIoTeam::Member& member) {
    helper_ = &member.Lane() != team_->First().get();
    std::int64_t start = now_;
    used_ = 0;
    ++threads_;
    std::vector<ZrIoTeam::Ready> ready;
    while (member.Next(ready, ZrIoTeam::kForEver)) {
      for (const auto& one : ready) {
        // One connection, one thread at a time.
        const auto place = one.registration->token - 1;
        EXPECT_FALSE(served_[place].exchange(true));
        EXPECT_TRUE(one.registration->connection);
        served_[place] = false;
      }
      std::this_thread::yield();
      const std::int64_t now = now_;
      used_ += (now - std::exchange(start, now)) * (helper_ ? helpersUse_ : firstUses_) / 1000;
    }
    --threads_;
  }
  std::int64_t Used() const { return used_; }
  void Connect() {
    auto registration = std::make_shared<ZrIoRegistration>();
    registration->socket =
        Accepted([this](int port) { clients_.push_back(std::make_unique<RawClient>(port)); });
    clients_.back()->Send("unread");
    registration->connection = zr::MakeJob<ZrTransceiverConnection>(
        bed_.transceiver, "", "", ZrServerCallback_t{}, &TransceiverBed::Finish);
    registration->token = clients_.size();
    ZrLock hold(registration->connection->Lock());
    registration->connection->Bind(registration);
    team_->Enter(registration);
    registrations_.push_back(registration);
    const bool input = GetParam() == ZrIoLane::Direction::kInput;
    ASSERT_TRUE(Side(*registration)
                    .lane->Watch(*registration, input ? ZrInterest::kRead : ZrInterest::kWrite));
  }

  TransceiverBed bed_;
  std::vector<std::unique_ptr<RawClient>> clients_;
  std::vector<std::shared_ptr<ZrIoRegistration>> registrations_;
  std::array<std::atomic<bool>, kConnections> served_{};
  std::atomic<std::int64_t> now_{0};
  std::thread thread_;
  static inline thread_local std::int64_t used_ = 0;
  static inline thread_local bool helper_ = false;
};

TEST_P(IoTeam, AHelperComesWithTheLoadAndGoesWithIt) {
  Run({.most = 2});
  ASSERT_TRUE(WaitForThreads(2));
  EXPECT_TRUE(WaitFor([&] { return HandedOver() > 0; }));
  firstUses_ = helpersUse_ = 100;
  EXPECT_TRUE(WaitForThreads(1));
  EXPECT_TRUE(WaitFor([&] { return team_->First()->All().size() == kConnections; }));
}

TEST_P(IoTeam, AHelperThatGainsNothingGoes) {
  helpersUse_ = 0;
  Run({.most = 2});
  ASSERT_TRUE(WaitForThreads(2));
  EXPECT_TRUE(WaitForThreads(1));
  EXPECT_TRUE(WaitForThreads(2));  // and is tried again after a while
}

TEST_P(IoTeam, AllAreThereAtOnceWhereThatIsAskedFor) {
  firstUses_ = helpersUse_ = 0;
  Run({.most = 4, .atOnce = true});
  ASSERT_TRUE(WaitForThreads(4));
}

TEST_P(IoTeam, ThoseThereGoOnWithoutAThreadForAHelper) {
  zr::FailThreadStart(1);
  Run({.most = 2});
  EXPECT_TRUE(WaitForThreads(2));  // the next attempt
  zr::FailThreadStart(0);
}

INSTANTIATE_TEST_SUITE_P(Directions, IoTeam,
                         testing::Values(ZrIoLane::Direction::kInput,
                                         ZrIoLane::Direction::kOutput));

}  // namespace
