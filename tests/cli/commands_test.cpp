// Runs the commands as a user runs them and compares what they print, for the store example with
// what its README shows.

#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "tests/support/run.h"

namespace {

zrtest::RunResult RunIn(const std::string& folder, const std::string& command) {
  return zrtest::RunProgram(
      {"sh", "-c", "cd '" + folder + "' && PATH='" ZR_PROGRAM_FOLDER "':$PATH && " + command});
}

TEST(StoreCommand, PrintsWhatTheReadmeShows) {
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
  folder.Write("p.html", "<!DOCTYPE html><html><body><p>x</p></body></html>");
  folder.Write("wrong.html", "<p style='a\n:b:c'/>");
  folder.Write("plain.html", "<unknown/><p/>");
  folder.Write("bad.xml", "<quarn>\n<a>\n</quarn>");
  const struct {
    const char* command;
    int status;
    std::string out, err;
  } cases[] = {
      {"markup write - <d.xml", 0, document, ""},
      {"markup query d.xml r.a", 0, "<a k=\"1\" />\n<a k=\"2\">\n<b />\n</a>", ""},
      {"markup query - a --attribute k <d.xml", 0, "1\n2\n", ""},
      {"markup query d.xml a.b.c", 1, "", ""},
      {"markup query d.xml a --attribute none", 1, "", ""},
      {"markup query p.html body.p --dtd html", 0, "<p>\nx\n</p>", ""},
      {"markup script p.html", 0,
       "{\nvar newelem = document.createElement('html');\n"
       "newelem.innerHTML=\"<body>\\n<p>\\nx\\n</p>\\n</body>\";\n"
       "document.appendChild(newelem);\n }",
       ""},
      {"markup script plain.html", 1, "", "plain.html: no HTML element to make a script of\n"},
      {"markup write wrong.html --dtd html", 1, "",
       "wrong.html: style syntax wrong at: >a :b:c<  around line 2\n"},
      {"markup write bad.xml", 1, "",
       "bad.xml: wrong closing tag '/quarn' instead '/a' around line 3\n"},
      {"markup write none", 1, "", "none: cannot be read\n"},
      {"markup write .", 1, "", ".: cannot be read\n"},
      {"animate '!linearanimation(.a,1s,1,1,on,off,5)'", 0, "", ""},
      {"animate 'linearanimation(.a,1s,1,2,on,off,5)'", 1, "/* error */\n", ""},
      {"animate", 2, "", "velkoro: TEXT is required; see velkoro animate --help\n"},
      {"store --application none options", 1, "",
       "velkoro: no config was found - ./none.xml with error in stream around line 1\n"},
      {"store --application bad options", 1, "",
       "velkoro: no config was found - ./bad.xml with wrong closing tag '/quarn' instead '/a' "
       "around line 3\n"},
      {"store options", 2, "",
       "velkoro: --application is required; see velkoro store options --help\n"},
      {"store --application demo", 2, "",
       "velkoro: A subcommand is required; see velkoro store --help\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.command);
    const zrtest::RunResult result = RunIn(folder.Path(), std::string("velkoro ") + c.command);
    EXPECT_EQ(result.status, c.status);
    EXPECT_EQ(result.out, c.out);
    EXPECT_EQ(result.err, c.err);
  }
  const std::string demo = "velkoro store --application demo ";
  EXPECT_EQ(RunIn(ZR_STORE_EXAMPLE, demo + "variable garden none").status, 1);
  EXPECT_EQ(RunIn(ZR_STORE_EXAMPLE, demo + "variable none greeting").status, 1);
  EXPECT_EQ(RunIn(ZR_STORE_EXAMPLE, demo + "expand --set x greeting.txt").status, 2);
  EXPECT_EQ(RunIn(ZR_STORE_EXAMPLE, demo + "expand none.txt").status, 1);
}

}  // namespace
