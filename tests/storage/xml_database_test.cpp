#include "storage/xml_database.h"

#include <gtest/gtest.h>

#include "tests/markup/dump.h"
#include "tests/support/temporary_folder.h"

namespace {

using zrtest::MessageOf;
using zrtest::Written;

TEST(XMLDatabase, ValuesAreFoundUnderTheirPaths) {
  ZrXMLDatabase database("quarn");
  database.SetValueLocked("quarn.x", "1");
  database.SetValue("server.port", "8443");
  database.SetValue("a.b.c", "say \"hi\"");
  EXPECT_EQ(database.GetValueLocked("quarn.x", "d"), "1");
  EXPECT_EQ(database.GetValue("quarn.server.port", ""), "8443");
  EXPECT_EQ(database.GetValue("a.b.other", "d"), "d");
  const std::string written =
      "<quarn x=\"1\">\n<server port=\"8443\" />\n<a>\n<b c=\"say \"hi\"\" />\n</a>\n</quarn>";
  EXPECT_EQ(Written(*database.Current()), written);
  for (const char* path : {"", "one", "one."}) {
    database.SetValue(path, "v");
    EXPECT_EQ(Written(*database.Current()), written) << path;
    EXPECT_EQ(database.GetValue(path, "d"), "d") << path;
  }
  ZrXMLDatabase empty("");
  ZrXMLElementList list;
  const std::string message = "the base element must have a length";
  EXPECT_EQ(MessageOf([&] { database.FindElements("", list); }), message);
  EXPECT_EQ(MessageOf([&] { empty.FindElements("a", list); }), message);
  EXPECT_EQ(MessageOf([&] { database.FindAllByName("", list); }), message);
  EXPECT_EQ(empty.GetValue("a.b", "d"), "d");
}

TEST(XMLDatabase, AFailedLoadLeavesTheTree) {
  const zrtest::TemporaryFolder folder;
  const std::string missing = folder.Path("none.xml");
  ZrXMLDatabase database("quarn");
  database.SetValue("quarn.x", "1");
  const std::pair<std::string, std::string> cases[] = {
      {missing, "error in stream around line 1"},
      {folder.Path(), "error in stream around line 1"},
      {folder.Write("bad.xml", "<a>\n<b></a>"),
       "wrong closing tag '/a' instead '/b' around line 2"},
      {folder.Write("blank.xml", ""), ""},
  };
  for (const auto& [path, reason] : cases) {
    std::string told;
    EXPECT_EQ(MessageOf([&, &from = path] {
                database.Load(from, [&](const auto& name) { told = name; });
              }),
              "no config was found - " + path + " with " + reason);
    EXPECT_EQ(told, path == missing ? missing : "");
    EXPECT_EQ(Written(*database.Current()), "<quarn x=\"1\" />");
  }
  EXPECT_THROW(database.Load(missing, {}), std::bad_function_call);
  database.Load(missing, [&](const std::string&) { folder.Write("none.xml", "<made/>"); });
  EXPECT_EQ(database.BaseName(), "made");
  EXPECT_EQ(database.Directory(), folder.Path() + "/");
}

}  // namespace
