// Real documents, read and written again, are the same documents. The files come from the packages
// shared-mime-info, xkb-data and iso-codes, the comparison from libxml2-utils.

#include <gtest/gtest.h>

#include <string>

#include "tests/markup/dump.h"
#include "tests/support/plain_xml.h"
#include "tests/support/run.h"

namespace {

std::string Canonical(const std::string& xml) {
  const zrtest::RunResult result = zrtest::RunProgram({"xmllint", "--c14n", "-"}, xml);
  EXPECT_EQ(result.status, 0) << result.err;
  return result.out;
}

// Without the line feeds that writing puts where two tags touch.
std::string WithoutBreaksBetweenTags(const std::string& xml) {
  std::string joined;
  for (std::size_t i = 0; i < xml.size(); ++i) {
    const bool between = xml[i] == '\n' && i != 0 && xml[i - 1] == '>' && xml[i + 1] == '<';
    if (!between) joined += xml[i];
  }
  return joined;
}

TEST(Documents, RealFilesSurviveReadingAndWriting) {
  for (const std::string path :
       {"/usr/share/mime/packages/freedesktop.org.xml", "/usr/share/X11/xkb/rules/evdev.xml",
        "/usr/share/xml/iso-codes/iso_639-3.xml"}) {
    SCOPED_TRACE(path);
    const std::string original = zrtest::PlainXml(zrtest::ReadFile(path));
    const std::string written = zrtest::ReadAndWritten(original);
    EXPECT_EQ(zrtest::ReadAndWritten(written), written);
    const std::string expected = WithoutBreaksBetweenTags(Canonical(original));
    const std::string actual = WithoutBreaksBetweenTags(Canonical(written));
    EXPECT_GT(actual.size(), 100'000u) << "is the file missing?";
    EXPECT_TRUE(actual == expected) << "the documents differ";
  }
}

}  // namespace
