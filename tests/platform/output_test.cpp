#include "platform/output.h"

#include <gtest/gtest.h>

#include <sstream>
#include <thread>
#include <vector>

namespace {

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

}  // namespace
