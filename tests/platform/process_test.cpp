#include "platform/process.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>

#include "platform/pipe.h"

namespace {

using std::chrono::seconds;
using std::chrono::steady_clock;

class Process : public ::testing::Test {
 protected:
  std::error_code StartShell(const std::string& script) {
    EXPECT_FALSE(zr::MakePipe(output_));
    EXPECT_FALSE(zr::SetNonBlocking(output_.read.Get()));
    ZrProcessStart start{
        .program = "sh", .arguments = {"-c", script}, .environment = &environment_};
    start.standardOutput = start.standardError = output_.write.Get();
    const std::error_code failed = process_.Start(start);
    output_.write.Close();
    return failed;
  }

  ZrEnvironment environment_ = ZrEnvironment::OfThisProcess();
  zr::Pipe output_;
  ZrProcess process_;
};

TEST_F(Process, ChildHasOnlyItsOwnVariablesDescriptorsAndSignals) {
  // Descriptors of the host that would survive an exec, and dispositions that would too.
  std::FILE* hostFile = std::fopen("/dev/null", "r");
  const auto previous = std::signal(SIGTERM, SIG_IGN);
  environment_ = {};
  ASSERT_TRUE(environment_.Set("A", "1"));
  ASSERT_TRUE(environment_.Set("AB", "2"));
  ASSERT_TRUE(environment_.Set("A", "3"));
  ASSERT_FALSE(
      StartShell("/usr/bin/env | grep -v -e ^PWD= -e ^_= -e ^OLDPWD= -e ^SHLVL= | sort; ls "
                 "/proc/self/fd | wc -l;"
                 "sed -n 's/^Sig\\(Blk\\|Ign\\):.*\\(.......\\)$/\\1 \\2/p' /proc/self/status; "
                 "read x || echo no input;"
                 "set -- $(cat /proc/$$/stat); [ $5 = $$ ] && echo leader"));
  // "ls" itself holds a fourth descriptor, the folder. The masks' last digits cover signals 1 to
  // 28; above 31 come two that belong to the C library and are not ours to change.
  ASSERT_TRUE(process_.WaitForEnd(steady_clock::now() + seconds(20)));
  std::array<char, 4096> bytes;
  const std::size_t count = zr::ReadPipe(output_.read.Get(), bytes).count;
  EXPECT_EQ(std::string(bytes.data(), count),
            "A=3\nAB=2\n4\nBlk 0000000\nIgn 0000000\nno input\nleader\n");
  EXPECT_EQ(process_.Collect(), 0);
  std::signal(SIGTERM, previous);
  std::fclose(hostFile);
}

TEST_F(Process, HostThatCollectsItsChildrenIsSurvived) {
  const auto previous = std::signal(SIGCHLD, SIG_IGN);
  ASSERT_FALSE(StartShell("exit 3"));
  EXPECT_TRUE(process_.WaitForEnd(steady_clock::now() + seconds(20)));
  EXPECT_TRUE(process_.HasEnded());
  EXPECT_EQ(process_.Collect(), std::nullopt);
  std::signal(SIGCHLD, previous);
}

}  // namespace
