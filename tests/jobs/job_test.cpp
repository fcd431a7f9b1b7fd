#include "jobs/job.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <string>
#include <thread>
#include <vector>

#include "jobs/job_registry.h"
#include "tests/jobs/recording_job.h"

namespace {

void Take(ZrJobLock& lock, bool tries) ZR_NO_THREAD_SAFETY_ANALYSIS {
  if (!tries || !lock.try_lock()) lock.lock();
}
void Give(ZrJobLock& lock) ZR_NO_THREAD_SAFETY_ANALYSIS { lock.unlock(); }

// Each way in and out of the lock beside the others, and deliveries that find it taken.
TEST(Job, TheLockIsOneAtATimeAndLosesNoWaiter) {
  const auto job = zr::MakeJob<zrtest::RecordingJob>();
  const std::string task = job->CreateJoinedTask("locked");
  constexpr int kThreads = 4;
  constexpr int kTurns = 3000;
  int count = 0;  // guarded by the lock
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i)
    threads.emplace_back([&, i] {
      for (int turn = 0; turn < kTurns; ++turn) {
        if (i == 0 && turn % 10 == 0)
          ZrJobRegistry::Instance().Deliver(job->JobName(), zrtest::Event("on its way"));
        Take(job->Lock(), turn % 3 == 0);
        Take(job->Lock(), turn % 2 == 0);  // once more
        ++count;
        Give(job->Lock());
        if (turn % 64 == 0) std::this_thread::yield();
        Give(job->Lock());
      }
    });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(count, kThreads * kTurns);
  EXPECT_EQ(job->Received(kTurns / 10).size(), std::size_t{kTurns / 10});
}

}  // namespace
