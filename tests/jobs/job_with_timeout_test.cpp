#include "jobs/job_with_timeout.h"

#include <gtest/gtest.h>

#include <chrono>

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
  clock.Advance(115s);
  EXPECT_TRUE(job.HasExpired());
}

}  // namespace
