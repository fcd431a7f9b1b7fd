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
      {"markup write none", 1, "", "none: is not there\n"},
      {"markup write .", 1, "", ".: is a directory\n"},
      {"markup write - <.", 1, "", "-: is a directory\n"},
      {"markup write /proc/self/mem", 1, "",
       "/proc/self/mem: cannot be read: Input/output error\n"},
      {"animate '!linearanimation(.a,1s,1,1,on,off,5)'", 0, "", ""},
      {"animate 'linearanimation(.a,1s,1,2,on,off,5)'", 1, "",
       "velkoro: no command; the one there is begins with !linearanimation(\n"},
      {"animate '!linearanimation(.a,1s)'", 1, "",
       "velkoro: the command needs 7 arguments, and 2 can be read\n"},
      {"animate '!linearanimation(.a,1s,1,two,on,off,5)'", 1, "", "velkoro: 'two' is no number\n"},
      {"animate", 2, "", "velkoro: TEXT is required; see velkoro animate --help\n"},
      {"store --application none options", 1, "",
       "velkoro: no config was found - ./none.xml with error in stream around line 1\n"},
      {"store --application bad options", 1, "",
       "velkoro: no config was found - ./bad.xml with wrong closing tag '/quarn' instead '/a' "
       "around line 3\n"},
      {"store --application demo", 2, "",
       "velkoro: A subcommand is required; see velkoro store --help\n"},
      {"store options", 2, "",
       "velkoro: --application is required; see velkoro store options --help\n"},
      {"store --application other options", 1, "",
       "velkoro: './other.xml' holds no application 'other'\n"},
      {"store --application loop expand --set a=[[a]] text", 1, "",
       "markers of a text call for more than 10000 replacements or 64 MiB; the rest of the text "
       "stays as it is\n"},
      {"store --application loop get loop.none.here", 1, "",
       "velkoro: there is no value 'loop.none.here'; --default prints one\n"},
      {"store get --default '' loop.none.here --application loop", 0, "\n", ""},
      {"store get --application loop loop.x.y", 0, "b\n", ""},
      {"markup write d.xml >/dev/full", 1, "",
       "velkoro: cannot write to the standard output: No space left on device\n"},
      {"--help >/dev/full", 1, "",
       "velkoro: cannot write to the standard output: No space left on device\n"},
      {"get http://127.0.0.1:9/ --timeout nan", 2, "",
       "velkoro: --timeout: 'nan' is no number from 0.001 to 86400; see velkoro get --help\n"},
  };
  folder.Write("other.xml", "<quarn><demo/></quarn>");
  folder.Write("loop.xml", "<quarn><loop><x y=\"b\"/></loop></quarn>");
  folder.Write("text", "[[a]]");
  for (const auto& c : cases) {
    SCOPED_TRACE(c.command);
    const zrtest::RunResult result = RunIn(folder.Path(), std::string("velkoro ") + c.command);
    EXPECT_EQ(result.status, c.status);
    EXPECT_EQ(result.out, c.out);
    EXPECT_EQ(result.err, c.err);
  }
  for (const char* command : {"options", "projects", "get", "variable", "expand"}) {
    const auto help = RunIn(folder.Path(), "velkoro store " + std::string(command) + " --help");
    EXPECT_NE(help.out.find("--application APP"), std::string::npos) << help.out;
  }
  const std::string demo = "velkoro store --application demo ";
  EXPECT_EQ(RunIn(ZR_STORE_EXAMPLE, demo + "variable garden none").status, 1);
  EXPECT_EQ(RunIn(ZR_STORE_EXAMPLE, demo + "variable none greeting").status, 1);
  EXPECT_EQ(RunIn(ZR_STORE_EXAMPLE, demo + "expand --set x greeting.txt").status, 2);
  EXPECT_EQ(RunIn(ZR_STORE_EXAMPLE, demo + "expand none.txt").status, 1);
  const auto opened = RunIn(ZR_STORE_EXAMPLE, demo + "variable garden opening");
  EXPECT_EQ(opened.out + opened.err, "from nine to five\n");
}

TEST(Commands, EndSilentlyWhenTheirReaderGoes) {
  const zrtest::TemporaryFolder folder;
  std::string document = "<r>";
  for (int i = 0; i < 100'000; ++i) document += "<a/>";
  folder.Write("d.xml", document + "</r>");
  for (const char* command : {"markup write d.xml", "markup query d.xml r.a"}) {
    const auto result = RunIn(folder.Path(), "{ velkoro " + std::string(command) +
                                                 "; echo $? >status; } | head -c 10 >/dev/null");
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(zrtest::ReadFile(folder.Path("status")), "141\n") << command;
  }
}

TEST(GetCommand, LeavesNoFileWithoutAnAnswer) {
  const zrtest::TemporaryFolder folder;
  const std::string get = "velkoro get http://127.0.0.1:1/ --output ";
  EXPECT_EQ(RunIn(folder.Path(), get + "none").status, 1);
  EXPECT_FALSE(std::filesystem::exists(folder.Path("none")));
  EXPECT_EQ(RunIn(folder.Path(), get + "-").err,
            "velkoro: http://127.0.0.1:1/: connection refused\n");
  EXPECT_FALSE(std::filesystem::exists(folder.Path("-")));
  EXPECT_EQ(RunIn(folder.Path(), get + "none/file").err,
            "velkoro: the file 'none/file' cannot be written: No such file or directory; choose "
            "another with --output\n");
}

}  // namespace
