#include "handlers/pipe_exec.h"

#include <gtest/gtest.h>

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <thread>

#include "tests/support/captured.h"
#include "tests/support/temporary_folder.h"
#include "tests/support/wait.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

class PipeExec : public ::testing::Test {
 protected:
  /// A program of these shell commands.
  std::string Shell(const std::string& commands) {
    const std::string path = folder_.Write("program", "#!/bin/sh\n" + commands + "\n");
    EXPECT_EQ(::chmod(path.c_str(), 0755), 0);
    return path;
  }
  /// Runs it; nothing may take longer than a test's patience.
  std::string Run(const std::string& program, std::string input = {}) {
    input_ = ZrStringBuf(std::move(input));
    ZrStringBuf output;
    const auto begin = steady_clock::now();
    ZrWinPipeExec exec(program, settings_);
    end_ = exec.Run(variables_, input_, output);
    EXPECT_LT(steady_clock::now() - begin, seconds(30));
    held_ = settings_.memory ? settings_.memory->Used() : 0;
    std::string bytes(output.Unread());
    output.Clear();
    return bytes;
  }
  /// Whether the process whose id the program wrote into this file has ended. (The machine's first
  /// process collects orphans when it likes: an uncollected one has no command line left.)
  bool IsGone(const std::string& file) {
    const int id = std::stoi(zrtest::ReadFile(folder_.Path(file)));
    return zrtest::ReadFile("/proc/" + std::to_string(id) + "/cmdline").empty();
  }

  zrtest::TemporaryFolder folder_;
  ZrPipeExecSettings settings_;
  ZrCgiVariables variables_;
  ZrStringBuf input_;
  std::uint64_t held_ = 0;
  ZrPipeExecEnd end_ = ZrPipeExecEnd::kNotStarted;
};

TEST_F(PipeExec, WhatChildrenWriteIsTheOutput) {
  constexpr std::pair<const char*, const char*> kCases[] = {
      {"echo text; exec >&- 2>&-; sleep 0.2", "text\n"},         // output closed early
      {"exec <&-; sleep 0.1; echo text", "text\n"},              // input ignored
      {"head -c 10 >/dev/null; echo text", "text\n"},            // input half read
      {"(sleep 0.2; echo late) & echo first", "first\nlate\n"},  // a pipeline that outlives it
  };
  for (const auto& [commands, output] : kCases) {
    EXPECT_EQ(Run(Shell(commands), std::string(1 << 20, 'x')), output) << commands;
    EXPECT_EQ(end_, ZrPipeExecEnd::kEnded);
  }
}

TEST_F(PipeExec, RunWithoutPipesIsReportedAndStillEnds) {
  const std::string program = Shell("echo text");
  // (Checked builds look at types through descriptors of their own the first time.)
  EXPECT_EQ(Run(program, "input"), "text\n");
  testing::internal::CaptureStdout();
  // No new descriptor at all: neither pipes nor one that reports the child's end.
  rlimit before{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
  const int next = ::dup(0);
  ::close(next);
  const rlimit none{static_cast<rlim_t>(next), before.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
  EXPECT_EQ(Run(program, "input"), "");
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
  EXPECT_EQ(zrtest::CapturedOutput(),
            "ERROR StdoutRd CreatePipe\nERROR Stdout SetHandleInformation\n"
            "ERROR Stdin CreatePipe\nERROR Stdin SetHandleInformation\n");
  EXPECT_EQ(end_, ZrPipeExecEnd::kEnded);
}

TEST_F(PipeExec, VariablesJoinTheInheritedOnesAndWin) {
  ZrEnvironment inherited;
  inherited.Set("PATH", "/bin:/usr/bin");
  inherited.Set("FROM_SERVER", "server");
  inherited.Set("REQUEST_METHOD", "server");
  settings_.environment = &inherited;
  variables_ = {{"REQUEST_METHOD", "GET"},
                {"QUERY_STRING", "a=1&b=\xff\n"},
                {"HTTP_X", std::string("a\0b", 3)}};
  EXPECT_EQ(Run(Shell("echo $FROM_SERVER $REQUEST_METHOD \"$QUERY_STRING\" ${HTTP_X-unset}")),
            "server GET a=1&b=\xff\n unset\n");
}

TEST_F(PipeExec, GrandchildHoldsTheRunNoLongerThanTheDrainLimit) {
  settings_.limits.drain = milliseconds(100);
  // One is silent, one never stops writing.
  EXPECT_EQ(Run(Shell("echo text; sleep 1000 & echo $! >" + folder_.Path("silent"))), "text\n");
  EXPECT_EQ(end_, ZrPipeExecEnd::kEnded);
  const std::string output = Run(Shell("yes & echo $! >" + folder_.Path("writer")));
  EXPECT_EQ(end_, ZrPipeExecEnd::kEnded);
  EXPECT_EQ(output.substr(0, 2), output.empty() ? "" : "y\n");
  // It was the program's choice to leave the silent one; the writer ends by its own broken pipe.
  EXPECT_FALSE(IsGone("silent"));
  EXPECT_TRUE(zrtest::WaitFor([this] { return IsGone("writer"); }));
  ::kill(std::stoi(zrtest::ReadFile(folder_.Path("silent"))), SIGKILL);
}

TEST_F(PipeExec, LimitsEndTheWholeGroup) {
  settings_.limits = {milliseconds(400), 100000, milliseconds(100), milliseconds(50)};
  const std::string stubborn =
      "trap '' TERM; (trap '' TERM; echo text; while :; do sleep 1000; done) & echo $! >" +
      folder_.Path("child") + "; ";
  EXPECT_EQ(Run(Shell(stubborn + "while :; do sleep 1000; done")), "text\n");
  EXPECT_EQ(end_, ZrPipeExecEnd::kRunLimit);
  EXPECT_TRUE(zrtest::WaitFor([this] { return IsGone("child"); }));

  settings_.limits.run = seconds(20);
  Run(Shell(stubborn + "trap '' PIPE; yes"));
  EXPECT_EQ(end_, ZrPipeExecEnd::kOutputLimit);
  EXPECT_TRUE(zrtest::WaitFor([this] { return IsGone("child"); }));
}

TEST_F(PipeExec, APeerThatEndedItsSideIsServedWhileSomethingMoves) {
  settings_.limits.endedPeer = milliseconds(300);
  settings_.peer = std::make_shared<ZrPeerWatch>();
  settings_.peer->MarkEnded();
  for (const bool streams : {false, true}) {
    settings_.streams = streams;
    EXPECT_EQ(Run(Shell("for i in 1 2 3 4; do echo $i; sleep 0.1; done")), "1\n2\n3\n4\n");
    EXPECT_EQ(end_, ZrPipeExecEnd::kEnded);
    EXPECT_EQ(Run(Shell("echo text; sleep 1000")), "text\n");
    EXPECT_EQ(end_, ZrPipeExecEnd::kRunLimit);
  }
}

TEST_F(PipeExec, EndReachesThoseThatLeftTheGroup) {
  settings_.limits.terminationGrace = milliseconds(50);
  const std::string id = folder_.Path("id");
  const std::string note = "echo $$ >" + id + ".new; mv " + id + ".new " + id + "; ";
  const std::string stay =
      "sh " + folder_.Write("stay", note + "trap '' TERM; while :; do sleep 1000; done\n");
  const std::pair<const char*, std::string> cases[] = {
      {"session of its own", "setsid " + stay + "; sleep 1000"},
      {"without the pipes", "setsid " + stay + " <&- >&- 2>&-; sleep 1000"},
      {"another group", "exec perl -e 'setpgrp 0, getpgrp getppid; exec @ARGV' " + stay},
      {"group of a job", "set -m; " + stay + " & wait"},
      {"orphan that holds a pipe", "(setsid " + stay + " &); sleep 1000"},
  };
  for (const auto& [name, commands] : cases) {
    SCOPED_TRACE(name);
    std::filesystem::remove(id);
    settings_.peer = std::make_shared<ZrPeerWatch>();
    std::thread peer([&] {
      EXPECT_TRUE(zrtest::WaitFor([&] { return std::filesystem::exists(id); }));
      settings_.peer->MarkGone();
    });
    Run(Shell(commands));
    peer.join();
    EXPECT_EQ(end_, ZrPipeExecEnd::kStopped);
    EXPECT_TRUE(zrtest::WaitFor([this] { return IsGone("id"); }));
  }
}

TEST_F(PipeExec, OutputWaitsForRoomUntilItIsGivenUp) {
  settings_.memory = std::make_shared<ZrMemoryBudget>(100);
  ZrMemoryShare others(settings_.memory);
  others.Set(200);
  const std::string written = folder_.Path("written");
  const std::string program = Shell("echo text; echo >" + written + "; exec >&- 2>&-; sleep 0.2");
  std::thread peers([&] {
    EXPECT_TRUE(zrtest::WaitFor([&] { return std::filesystem::exists(written); }));
    others.Set(50);
  });
  EXPECT_EQ(Run(program), "text\n");
  EXPECT_EQ(end_, ZrPipeExecEnd::kEnded);
  peers.join();
  others.Set(200);
  settings_.limits.room = milliseconds(100);
  EXPECT_EQ(Run(Shell("echo text; sleep 1000")), "");
  EXPECT_EQ(end_, ZrPipeExecEnd::kLost);

  ZrRoomQueue queue;
  ZrRoomQueue::Place first(&queue);
  {
    ZrRoomQueue::Place second(&queue);
    ZrRoomQueue::Place third(&queue);
    first.SetWaiting(true);
    EXPECT_TRUE(first.IsNewest());
    second.SetWaiting(true);
    EXPECT_FALSE(first.IsNewest());
    EXPECT_TRUE(second.IsNewest());
  }
  EXPECT_TRUE(first.IsNewest());
}

TEST_F(PipeExec, OutputHasALimitAndCountsForAsLongAsItIsHeld) {
  settings_.limits.output = 1 << 20;
  settings_.memory = std::make_shared<ZrMemoryBudget>(std::uint64_t{1} << 30);
  for (const std::size_t size : {0u, 65536u, 65537u, 1u << 20, (1u << 20) + 1}) {
    SCOPED_TRACE(size);
    const std::string sent(size, 'x');
    EXPECT_TRUE(Run("cat", sent) == sent.substr(0, settings_.limits.output));
    EXPECT_EQ(end_ == ZrPipeExecEnd::kOutputLimit, size > settings_.limits.output);
    // What is small is copied behind its head at once.
    EXPECT_EQ(held_, size > 65536 ? std::min(size, settings_.limits.output) : 0);
    EXPECT_EQ(settings_.memory->Used(), 0u);
  }
}

}  // namespace
