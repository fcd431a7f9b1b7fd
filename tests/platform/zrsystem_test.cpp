// What log lines and start-up ask of the system.

#include "platform/zrsystem.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>

#include <sstream>
#include <thread>
#include <vector>

#include "platform/zroutput.h"
#include "platform/zrtimetext.h"

namespace {

TEST(TimeText, IsWhatTheCLibraryWrites) {
  for (const time_t seconds : {time_t{0}, time_t{951'782'400}, time_t{4'102'444'800}}) {
    char expected[64];
    ASSERT_NE(::ctime_r(&seconds, expected), nullptr);
    EXPECT_EQ(zr::LocalTimeText(seconds) + "\n", expected);
  }
  EXPECT_EQ(zr::LocalTimeText(INT64_MAX), zr::LocalTimeText(0));
}

TEST(Output, LinesOfManyThreadsAreNeverTorn) {
  constexpr int kLines = 300;
  testing::internal::CaptureStderr();
  {
    std::vector<std::jthread> writers;
    for (const char letter : {'a', 'b', 'c', 'd'}) {
      writers.emplace_back([letter] {
        for (int i = 0; i < kLines; ++i) zr::WriteErrorLine(std::string(100, letter));
      });
    }
  }
  std::istringstream all(testing::internal::GetCapturedStderr());
  int count = 0;
  for (std::string line; std::getline(all, line); ++count) {
    ASSERT_EQ(line, std::string(100, line.at(0)));
  }
  EXPECT_EQ(count, 4 * kLines);
}

TEST(System, StateDirectoryFollowsTheEnvironment) {
  const struct {
    const char* name;
    const char* state;  // null: not set
    const char* expected;
  } cases[] = {{"not set", nullptr, "/home/u/.local/state/prog"},
               {"set", "/var/s", "/var/s/prog"},
               {"relative ones do not count", "s", "/home/u/.local/state/prog"},
               {"empty", "", "/home/u/.local/state/prog"}};
  const std::string home = zr::EnvironmentValue("HOME").value_or("");
  ::setenv("HOME", "/home/u", 1);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    c.state == nullptr ? ::unsetenv("XDG_STATE_HOME") : ::setenv("XDG_STATE_HOME", c.state, 1);
    EXPECT_EQ(zr::StateDirectory("prog"), c.expected);
  }
  ::unsetenv("XDG_STATE_HOME");
  ::setenv("HOME", home.c_str(), 1);
}

}  // namespace
