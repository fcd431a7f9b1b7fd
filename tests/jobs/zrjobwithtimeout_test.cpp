#include "jobs/zrjobwithtimeout.h"

#include <gtest/gtest.h>

#include <chrono>
#include <limits>

#include "tests/support/manual_clock.h"

namespace {

using namespace std::chrono_literals;

TEST(JobWithTimeout, AnExpiryIsReportedOnceAndArmedAgain) {
  zrtest::ManualClock clock;
  ZrJobWithTimeout job(115'000'000, clock);
  clock.Advance(115s - 1ns);
  EXPECT_FALSE(job.HasExpired());
  clock.Advance(1ns);
  EXPECT_TRUE(job.HasExpired());
  EXPECT_FALSE(job.Timing());
  EXPECT_FALSE(job.HasExpired());
  EXPECT_TRUE(job.HasExpired()) << "armed again without a restart";

  job.Touch();
  EXPECT_FALSE(job.HasExpired());
  EXPECT_TRUE(job.HasExpired()) << "a touch between the report and the next question has no effect";

  EXPECT_FALSE(job.HasExpired());
  job.Touch();
  EXPECT_FALSE(job.HasExpired());
  EXPECT_EQ(job.ExpiryNs(), clock.MonotonicNs() + 115'000'000'000);
  clock.Advance(115s);
  EXPECT_TRUE(job.HasExpired());
}

TEST(Deadline, RestartTakesAnotherLimit) {
  zrtest::ManualClock clock;
  clock.Advance(1s);
  ZrDeadline deadline(0, clock);
  EXPECT_TRUE(deadline.Expired());
  deadline.Restart(2);
  clock.Advance(1999ns);
  EXPECT_FALSE(deadline.Expired());
  clock.Advance(1ns);
  EXPECT_TRUE(deadline.Expired());

  deadline.Restart(std::numeric_limits<std::uint64_t>::max());
  clock.Advance(24h * 36500);
  EXPECT_FALSE(deadline.Expired()) << "a limit beyond the clock's range never passes";
  EXPECT_EQ(deadline.ExpiryNs(), std::numeric_limits<std::int64_t>::max());
}

}  // namespace
