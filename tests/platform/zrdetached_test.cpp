#include "platform/zrdetached.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cerrno>

#include "tests/support/temporary_folder.h"
#include "tests/support/wait.h"

using namespace zrtest;

TEST(DetachedProgram, StartsWithTheWordsGivenAndLeavesNoChild) {
  const TemporaryFolder folder;
  const std::string out = folder.Path("out");
  // The words reach the program as they are: what a shell would make of them does not happen.
  ASSERT_TRUE(zr::StartDetachedProgram("cp", {folder.Write("$(a);b", "bytes"), out}));
  EXPECT_TRUE(WaitFor([&] { return ReadFile(out) == "bytes"; }));
  EXPECT_FALSE(zr::StartDetachedProgram(folder.Path("missing"), {}));
  EXPECT_FALSE(zr::StartDetachedProgram(folder.Write("no program", "text"), {}));
  EXPECT_FALSE(zr::StartDetachedProgram("no-such-program-anywhere", {}));
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
}
