#include "jobs/job.h"

#include <gtest/gtest.h>

namespace {

TEST(Job, StatesAreApprovedOnceEach) {
  ZrJob job;
  EXPECT_FALSE(job.SetState(0)) << "the current state";
  EXPECT_TRUE(job.SetState(5));
  int asked = 0;
  job.SetStateGuard([&asked] {
    ++asked;
    return false;
  });
  EXPECT_FALSE(job.SetState(6));
  EXPECT_FALSE(job.SetState(6)) << "already the requested state";
  EXPECT_FALSE(job.SetState(5)) << "still the current state";
  EXPECT_EQ(asked, 1);
  EXPECT_EQ(job.State(), 5u);
  EXPECT_EQ(job.RequestedState(), 6u);
}

TEST(Job, ARetiredJobJoinsNothing) {
  ZrJob owner;
  const std::string task = owner.CreateJoinedTask("");
  ZrJob member;
  EXPECT_TRUE(member.Attach(task));
  member.Retire();
  EXPECT_FALSE(member.Attach(task));
  EXPECT_EQ(member.CreateJoinedTask(""), "");
}

}  // namespace
