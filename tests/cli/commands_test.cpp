// Runs the commands as a user runs them and compares what they print, for the store example with
// what its README shows.

#include <gtest/gtest.h>

#include <filesystem>
#include <sstream>
#include <string>

#include "tests/support/run.h"

namespace {

zrtest::RunResult RunIn(const std::string& folder, const std::string& command) {
  return zrtest::RunProgram(
      {"sh", "-c", "cd '" + folder + "' && PATH='" ZR_PROGRAM_FOLDER "':$PATH && " + command});
}

TEST(Commands, OfTheStorePrintWhatTheReadmeShows) {
  // A command stands behind "$ "; what follows it up to the next empty line is its output.
  const std::string readme = zrtest::ReadFile(ZR_STORE_EXAMPLE "/README.md");
  std::istringstream lines(readme);
  int commands = 0;
  for (std::string line; std::getline(lines, line);) {
    if (!line.starts_with("    $ ")) continue;
    ++commands;
    SCOPED_TRACE(line);
    const zrtest::RunResult result = RunIn(ZR_STORE_EXAMPLE, line.substr(6));
    EXPECT_EQ(result.status, 0) << result.err;
    if (line.ends_with("lights.css")) {  // the only one whose output is not shown
      EXPECT_NE(result.out.find("@keyframes lamp1"), std::string::npos);
      EXPECT_NE(result.out.find("The lamps .lamp0 and .lamp1"), std::string::npos);
      continue;
    }
    std::istringstream out(result.out);
    for (std::string text; std::getline(out, text);) line += "\n    " + text;
    EXPECT_NE(readme.find(line + "\n\n"), std::string::npos) << result.out;
  }
  EXPECT_GE(commands, 7);
}

TEST(Commands, PrintTheirResultOrSayWhatIsWrong) {
  const zrtest::TemporaryFolder folder;
  const std::string document =
      "<?xml version=\"1.0\"?>\n<!-- c -->\n<r>\n<a k=\"1\" />\n<a k=\"2\">\n<b />\n</a>\n</r>\n";
  folder.Write("d.xml", document);
  folder.Write("d.html", "<p>x</p>");
  folder.Write("plain.html", "<unknown/><p/>");
  const struct {
    const char* command;
    int status;
    std::string out, err;
  } cases[] = {
      {"markup write - <d.xml", 0, document, ""},
      {"markup query d.xml a --attribute none", 1, "", ""},
      {"markup script d.html", 0,
       "{\nvar newelem = document.createElement('p');\nnewelem.innerHTML=\"x\";\n"
       "document.appendChild(newelem);\n }",
       ""},
      {"markup script plain.html", 1, "", "plain.html: no HTML element to make a script of\n"},
      {"markup write none", 1, "", "none: is not there\n"},
      {"markup write - <.", 1, "", "-: is a directory\n"},
      {"markup write /proc/self/mem", 1, "",
       "/proc/self/mem: cannot be read: Input/output error\n"},
      {"animate '!linearanimation(.a,1s)'", 1, "",
       "velkoro: the command needs 7 arguments, and 2 can be read\n"},
      {"animate '!linearanimation(.a,1s,1,two,on,off,5)'", 1, "", "velkoro: 'two' is no number\n"},
      {"store --application none options", 1, "",
       "velkoro: no config was found - ./none.xml with error in stream around line 1\n"},
      {"store options", 2, "",
       "velkoro: --application is required; see velkoro store options --help\n"},
      {"store --application other options", 1, "",
       "velkoro: './other.xml' holds no application 'other'\n"},
      {"store --application loop get loop.none.here", 1, "",
       "velkoro: there is no value 'loop.none.here'; --default prints one\n"},
      {"store get --default '' loop.none.here --application loop", 0, "\n", ""},
      {"store get --application loop loop.x.y", 0, "b\n", ""},
      {"get http://127.0.0.1:1/ --output file", 1, "",
       "velkoro: http://127.0.0.1:1/: connection refused\n"},
      {"get http://127.0.0.1:1/ --output -", 1, "",
       "velkoro: http://127.0.0.1:1/: connection refused\n"},
      {"markup write d.xml >/dev/full", 1, "",
       "velkoro: cannot write to the standard output: No space left on device\n"},
  };
  folder.Write("other.xml", "<quarn><demo/></quarn>");
  folder.Write("loop.xml", "<quarn><loop><x y=\"b\"/></loop></quarn>");
  for (const auto& c : cases) {
    SCOPED_TRACE(c.command);
    const zrtest::RunResult result = RunIn(folder.Path(), std::string("velkoro ") + c.command);
    EXPECT_EQ(result.status, c.status);
    EXPECT_EQ(result.out, c.out);
    EXPECT_EQ(result.err, c.err);
  }
  for (const char* unmade : {"file", "-"})
    EXPECT_FALSE(std::filesystem::exists(folder.Path(unmade))) << unmade;
  const std::string demo = "velkoro store --application demo ";
  for (const char* wrong : {"variable garden none", "variable none greeting", "expand none.txt"})
    EXPECT_EQ(RunIn(ZR_STORE_EXAMPLE, demo + wrong).status, 1) << wrong;
  EXPECT_EQ(RunIn(ZR_STORE_EXAMPLE, demo + "expand --set x greeting.txt").status, 2);
}

TEST(Commands, EndSilentlyWhenTheirReaderGoes) {
  const zrtest::TemporaryFolder folder;
  std::string document = "<r>";
  for (int i = 0; i < 100'000; ++i) document += "<a/>";
  folder.Write("d.xml", document + "</r>");
  const auto result = RunIn(
      folder.Path(), "{ velkoro markup write d.xml; echo $? >status; } | head -c 10 >/dev/null");
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(zrtest::ReadFile(folder.Path("status")), "141\n");
}

}  // namespace
