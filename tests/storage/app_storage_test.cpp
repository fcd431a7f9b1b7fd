#include "storage/app_storage.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "tests/markup/dump.h"
#include "tests/support/captured.h"
#include "tests/support/temporary_folder.h"

namespace {

using zrtest::MessageOf;

// The storage works from the current directory.
class AppStorage : public testing::Test {
 protected:
  AppStorage() : before_(std::filesystem::current_path()) {
    folder_.Write("app.xml", R"(<quarn><app>
        <options><option name="a" value="1"/><option name="" value="2"/>
          <option name="a" value="3"/><option name="b"/></options>
        <projects><project name="one" projectpath="sub/one"/><project name="two"/>
          <project name="up" projectpath="../other"/><project name="s/p" projectpath="sp"/>
          <project name="gone" projectpath="gone"/></projects></app></quarn>)");
    WriteProject("sub/one/one.xml", "<b>1</b><!-- c -->");
    WriteProject("two/two.xml", "second");
    std::filesystem::current_path(folder_.Path());
    storage_.SetNoticeSink([this](std::string_view line) { notices_.append(line).append("\n"); });
  }
  ~AppStorage() override { std::filesystem::current_path(before_); }

  void WriteProject(const std::string& path, const std::string& text) {
    folder_.Write("app_projects/" + path, "<project><stringvariables><stringvariable name=\"v\">" +
                                              text +
                                              "</stringvariable></stringvariables></project>");
  }
  void Load() {
    storage_.LoadApplication("app");
    storage_.SetApplication("app");
  }
  bool Open(const std::string& name, bool create = false) {
    return storage_.OpenProject(name, create, [](const std::string&) {});
  }

  zrtest::TemporaryFolder folder_;
  std::filesystem::path before_;
  std::string notices_;
  ZrPersistentAppStorage storage_;
};

TEST_F(AppStorage, ReadsOptionsAndProjectsAndSavesNothing) {
  std::map<std::string, std::string> options = {{"old", "x"}};
  std::vector<std::string> names;
  EXPECT_EQ(MessageOf([&] { storage_.GetOptions(options); }), "no application selected");
  EXPECT_EQ(MessageOf([&] { storage_.GetProjectNames(names); }), "no application selected");
  for (int i = 0; i < 2; ++i) storage_.SetApplication("quarntwodll");
  EXPECT_EQ(storage_.Current()->Children().size(), 1u);
  Load();
  storage_.PrintProjectStorage();
  EXPECT_EQ(notices_, "projectstorage: ./app_projects\n");
  testing::internal::CaptureStderr();
  storage_.SaveApplication("");
  storage_.SaveApplication("b");
  EXPECT_EQ(zrtest::CapturedErrors(),
            "writing: ./app.xml to disk is blocked!!\nwriting: ./b.xml to disk is blocked!!\n");
  storage_.GetOptions(options);
  EXPECT_EQ(options, (std::map<std::string, std::string>{{"a", "3"}, {"b", ""}}));
  storage_.GetProjectNames(names);
  EXPECT_EQ(names, (std::vector<std::string>{"one", "two", "up", "s/p", "gone"}));
  folder_.Write("double.xml", "<quarn><quarn/></quarn>");
  storage_.LoadApplication("double");
  EXPECT_EQ(MessageOf([&] { storage_.SetApplication("double"); }),
            "could not read the application config base 'quarn'");
}

TEST_F(AppStorage, OpensListedProjectsOnly) {
  Load();
  for (const char* name : {"", "unlisted", "s/p"}) EXPECT_FALSE(Open(name, true)) << name;
  EXPECT_EQ(notices_, "");
  EXPECT_TRUE(Open("one"));
  EXPECT_EQ(notices_, "*#*#*#* sub/one\ncsd: .\\app_projects\\sub\\one\n");
  EXPECT_FALSE(Open("two"));
  EXPECT_TRUE(Open("two", true));
  EXPECT_FALSE(Open("gone"));
  EXPECT_FALSE(std::filesystem::exists("app_projects/gone"));
  EXPECT_EQ(MessageOf([&] { Open("gone", true); }),
            "closing on catch... with no config was found - .\\app_projects\\gone/gone.xml with "
            "error in stream around line 1");
  const auto mode = std::filesystem::status("app_projects/gone").permissions();
  EXPECT_EQ(static_cast<unsigned>(mode) & ~0750u, 0u);
  EXPECT_FALSE(Open("up", true) || std::filesystem::exists("other"));
}

TEST_F(AppStorage, DirectoriesEndAtTheirLongestPath) {
  Load();
  std::string directory;
  const std::string longest(259 - std::string(".\\app_projects\\").size(), 'd');
  EXPECT_FALSE(storage_.PrepareProjectDirectory(longest + "d", directory, true));
  // The name itself may be at most 255 bytes on disk, so the longest path has two pieces.
  std::string path = longest;
  path[100] = '/';
  EXPECT_TRUE(storage_.PrepareProjectDirectory(path, directory, true));
  EXPECT_EQ(directory.size(), 259u);
  EXPECT_TRUE(storage_.PrepareProjectDirectory("C:/drive", directory, true));
  EXPECT_TRUE(directory == "C:\\drive" && std::filesystem::is_directory("C:/drive"));
}

TEST_F(AppStorage, ProjectsLiveAsLongAsTheirUsers) {
  Load();
  ASSERT_TRUE(Open("one") && Open("two", true));
  EXPECT_EQ(MessageOf([&] { storage_.AcquireProject("gone", "u"); }), "project gonenot found");
  ZrXMLDatabase* const one = storage_.AcquireProject("one", "ann");
  EXPECT_EQ(storage_.AcquireProject("one", "bob"), one);
  ZrXMLDatabase* const two = storage_.AcquireProject("two", "cid");
  EXPECT_EQ(two->GetStringVariable("v", ""), "second");

  WriteProject("sub/one/one.xml", "changed");
  EXPECT_EQ(one->GetStringVariable("v", ""), "<b>1</b><!-- c -->");
  EXPECT_TRUE(one->HasStringVariable("v") && !one->HasStringVariable("w"));
  notices_.clear();
  ZrXMLDatabase* const again = storage_.ReacquireProject("one", "cid");
  EXPECT_EQ(again->GetStringVariable("v", ""), "changed");
  EXPECT_EQ(again->Users(), (std::set<std::string>{"ann", "bob", "cid"}));

  WriteProject("sub/one/one.xml", "</wrong>");
  EXPECT_EQ(MessageOf([&] { storage_.ReacquireProject("one", "dee"); }).rfind("no config", 0), 0u);
  EXPECT_EQ(storage_.AcquireProject("one", "ann")->GetStringVariable("v", ""), "changed");

  for (const char* user : {"ann", "stranger", "bob", "cid"}) storage_.ReleaseProject("one", user);
  EXPECT_EQ(notices_, "reading DB again\nreading DB again\nclosing one\n");
  EXPECT_EQ(MessageOf([&] { storage_.AcquireProject("one", "ann"); }), "project onenot found");
  storage_.ReleaseProject("one", "ann");
  EXPECT_EQ(two->Users().size(), 1u);
}

TEST_F(AppStorage, ExpandsMarkersFromCommandsProjectsAndMappings) {
  Load();
  ASSERT_TRUE(Open("one"));
  storage_.AcquireProject("one", "u");
  storage_.SetMapping("v", "mapped");
  storage_.SetMapping("m", "<[[v]]>");
  const auto expanded = [&](const char* project, std::string text) {
    storage_.ExpandMarkers(project, text);
    return text;
  };
  EXPECT_EQ(expanded("one", "[[v]] [[x]]."), "<b>1</b><!-- c --> .");
  EXPECT_EQ(expanded("two", "[[v]] [[m]]"), "mapped <mapped>");
  EXPECT_EQ(expanded("", "a[[!nothing()]]b"), "a/* error */\nb");
  storage_.RemoveMapping("v");
  EXPECT_EQ(expanded("", "[[v]]"), "");
}

}  // namespace
