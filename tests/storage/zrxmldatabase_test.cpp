#include "storage/zrxmldatabase.h"

#include <gtest/gtest.h>

#include <functional>
#include <sstream>

#include "host/zrexception.h"
#include "tests/support/temporary_folder.h"

namespace {

std::string Written(const ZrXMLDatabase& database) {
  std::ostringstream text;
  database.Current()->Write(text);
  return text.str();
}

TEST(XMLDatabase, ValuesAreFoundUnderTheirPaths) {
  ZrXMLDatabase database("quarn");
  EXPECT_EQ(database.GetValue("quarn.x", "d"), "d");
  database.SetValue("quarn.x", "1");
  database.SetValue("server.port", "8443");
  database.SetValue("a.b.c", "say \"hi\"");
  EXPECT_EQ(database.GetValue("quarn.x", "d"), "1");
  EXPECT_EQ(database.GetValue("quarn.server.port", ""), "8443");
  EXPECT_EQ(database.GetValue("a.b.c", ""), "say \"hi\"");
  EXPECT_EQ(database.GetValue("a.b.other", "d"), "d");
  EXPECT_EQ(
      Written(database),
      "<quarn x=\"1\">\n<server port=\"8443\" />\n<a>\n<b c=\"say \"hi\"\" />\n</a>\n</quarn>");
  for (const char* path : {"", "one", "one."}) {
    const std::string before = Written(database);
    database.SetValue(path, "v");
    EXPECT_EQ(Written(database), before) << path;
    EXPECT_EQ(database.GetValue(path, "d"), "d") << path;
  }
}

TEST(XMLDatabase, LockedOperationsEnterDefaults) {
  ZrXMLDatabase database("quarn");
  EXPECT_EQ(database.EnsureValue("quarn.x", "d"), "d");
  EXPECT_EQ(database.EnsureValue("quarn.x", "other"), "d");
  database.SetValueLocked("quarn.x", "2");
  EXPECT_EQ(database.GetValueLocked("quarn.x", ""), "2");
}

TEST(XMLDatabase, SearchesRefuseEmptyNames) {
  ZrXMLDatabase database("quarn");
  ZrXMLDatabase empty("");
  ZrXMLElementList list;
  struct Case {
    const char* name;
    std::function<void()> search;
    const char* message;
  };
  const Case cases[] = {
      {"empty path", [&] { database.FindElements("", list); },
       "the base element must have a length"},
      {"no base", [&] { empty.FindElements("a", list); }, "the base element must have a length"},
      {"empty name", [&] { database.FindAllByName("", list); },
       "the base element must have a length"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    try {
      c.search();
      ADD_FAILURE() << "accepted";
    } catch (const ZrException& e) {
      EXPECT_STREQ(e.what(), c.message);
    }
  }
  EXPECT_EQ(empty.GetValue("a.b", "d"), "d");
}

TEST(XMLDatabase, LoadsItsTreeFromAFile) {
  const zrtest::TemporaryFolder folder;
  const std::string path =
      folder.Write("p.xml",
                   "<?xml version=\"1.0\"?>\n<project><stringvariables>\n"
                   "<stringvariable name=\"a\">x <b>y</b><!-- c --></stringvariable>\n"
                   "<stringvariable name=\"b\"/></stringvariables></project>\n");
  ZrXMLDatabase database("quarn");
  EXPECT_FALSE(database.HasStringVariable("a"));
  database.Load(path, {});
  EXPECT_EQ(database.BaseName(), "project");
  EXPECT_EQ(database.Directory(), folder.Path() + "/");
  EXPECT_TRUE(database.HasStringVariable("a"));
  EXPECT_EQ(database.GetStringVariable("a", "d"), "x <b>y</b><!-- c -->");
  EXPECT_EQ(database.GetStringVariable("b", "d"), "");
  EXPECT_EQ(database.GetStringVariable("c", "d"), "d");
}

TEST(XMLDatabase, AFailedLoadLeavesTheTree) {
  const zrtest::TemporaryFolder folder;
  const std::string bad = folder.Write("bad.xml", "<a>\n<b></a>");
  const std::string blank = folder.Write("blank.xml", "");
  ZrXMLDatabase database("quarn");
  database.SetValue("quarn.x", "1");
  struct Case {
    std::string path;
    std::string reason;
    bool missing;
  };
  const Case cases[] = {
      {folder.Path("none.xml"), "error in stream around line 1", true},
      {folder.Path(), "error in stream around line 1", false},
      {bad, "wrong closing tag '/a' instead '/b' around line 2", false},
      {blank, "", false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.path);
    std::string told;
    try {
      database.Load(c.path, [&](const std::string& path) { told = path; });
      ADD_FAILURE() << "accepted";
    } catch (const ZrException& e) {
      EXPECT_EQ(e.what(), "no config was found - " + c.path + " with " + c.reason);
    }
    EXPECT_EQ(told, c.missing ? c.path : "");
    EXPECT_EQ(Written(database), "<quarn x=\"1\" />");
  }
  EXPECT_THROW(database.Load(folder.Path("none.xml"), {}), std::bad_function_call);
  const std::string made = folder.Path("made.xml");
  database.Load(made, [&](const std::string&) { folder.Write("made.xml", "<made/>"); });
  EXPECT_EQ(database.BaseName(), "made");
}

TEST(XMLDatabase, SaveOnlySaysThatItDoesNot) {
  const zrtest::TemporaryFolder folder;
  testing::internal::CaptureStderr();
  ZrXMLDatabase("quarn").Save(folder.Path("x.xml"));
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "writing: " + folder.Path("x.xml") + " to disk is blocked!!\n");
  EXPECT_EQ(zrtest::ReadFile(folder.Path("x.xml")), "");
}

}  // namespace
