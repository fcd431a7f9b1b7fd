// Runs the commands of the store example's README and compares what they print with what it shows.

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "tests/support/run.h"

namespace {

struct Shown {
  std::string command;
  std::string output;
};

constexpr char kIndent[] = "    ";

// A command stands behind "$ "; what follows it up to the next empty line is its output.
std::vector<Shown> ShownIn(const std::string& readme) {
  std::vector<Shown> commands;
  std::istringstream lines(readme);
  bool within = false;
  for (std::string line; std::getline(lines, line);) {
    const std::string text = line.substr(0, 4) == kIndent ? line.substr(4) : "";
    if (text.rfind("$ ", 0) == 0) {
      commands.push_back({text.substr(2), ""});
      within = true;
    } else if (text.empty()) {
      within = false;
    } else if (within) {
      commands.back().output += text + "\n";
    }
  }
  return commands;
}

zrtest::RunResult RunIn(const std::string& command) {
  return zrtest::RunProgram(
      {"sh", "-c",
       "cd '" ZR_STORE_EXAMPLE "' && PATH='" ZR_PROGRAM_FOLDER "':$PATH && " + command});
}

TEST(StoreCommand, PrintsWhatTheReadmeShows) {
  const std::vector<Shown> commands = ShownIn(zrtest::ReadFile(ZR_STORE_EXAMPLE "/README.md"));
  ASSERT_GE(commands.size(), 7u);
  for (const Shown& shown : commands) {
    SCOPED_TRACE(shown.command);
    const zrtest::RunResult result = RunIn(shown.command);
    EXPECT_EQ(result.status, 0) << result.err;
    if (!shown.output.empty()) {
      EXPECT_EQ(result.out, shown.output);
    } else {
      EXPECT_NE(result.out.find("@keyframes lamp1"), std::string::npos);
      EXPECT_NE(result.out.find("The lamps .lamp0 and .lamp1"), std::string::npos);
    }
  }
}

TEST(StoreCommand, SaysWhatIsWrong) {
  const zrtest::TemporaryFolder folder;
  folder.Write("bad.xml", "<quarn>\n<a>\n</quarn>");
  struct Case {
    std::string command;
    int status;
    std::string message;
  };
  const Case cases[] = {
      {"store --application none options", 1,
       "no config was found - ./none.xml with error in stream around line 1"},
      {"store --application bad options", 1,
       "no config was found - ./bad.xml with wrong closing tag '/quarn' instead '/a' around line "
       "3"},
      {"store options", 2, "--application is required"},
      {"store --application demo", 2, "subcommand is required"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.command);
    const zrtest::RunResult result = RunIn("cd '" + folder.Path() + "' && velkoro " + c.command);
    EXPECT_EQ(result.status, c.status);
    EXPECT_EQ(result.out, "");
    EXPECT_NE(result.err.find(c.message), std::string::npos) << result.err;
    EXPECT_EQ(result.err.find('\n'), result.err.size() - 1);
  }
  EXPECT_EQ(RunIn("velkoro store --application demo variable garden none").status, 1);
  EXPECT_EQ(RunIn("velkoro store --application demo variable none greeting").status, 1);
  EXPECT_EQ(RunIn("velkoro store --application demo expand --set x greeting.txt").status, 2);
  EXPECT_EQ(RunIn("velkoro store --application demo expand none.txt").status, 1);
}

}  // namespace
