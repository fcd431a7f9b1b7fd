// Real documents, read and written again, are the same documents. The files come from the packages
// shared-mime-info, xkb-data and iso-codes, the comparison from libxml2-utils.

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>

#include "host/zrexception.h"
#include "markup/zrdtdelementreaderstream.h"
#include "markup/zrparse.h"
#include "tests/markup/dump.h"
#include "tests/support/plain_xml.h"

namespace {

std::string Contents(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  EXPECT_TRUE(file.good()) << path << " is missing";
  return {std::istreambuf_iterator<char>(file), {}};
}

std::string ReadAndWritten(const std::string& xml) {
  std::istringstream stream(xml);
  ZrDTDElementReaderStream reader(stream);
  std::ostringstream written;
  zr::Parse(reader.Splitter(), reader, "xml", false);
  for (const ZrXMLComplexElement* node : reader.Splitter().top->Children()) node->Write(written);
  return written.str();
}

std::string Canonical(const std::string& xml) {
  const std::string base = testing::TempDir() + "velkoro-document-" + std::to_string(::getpid());
  std::ofstream(base + ".xml", std::ios::binary) << xml;
  const std::string command = "xmllint --c14n '" + base + ".xml' > '" + base + ".c14n'";
  EXPECT_EQ(std::system(command.c_str()), 0);
  std::string canonical = Contents(base + ".c14n");
  std::filesystem::remove(base + ".xml");
  std::filesystem::remove(base + ".c14n");
  return canonical;
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
  for (const char* path :
       {"/usr/share/mime/packages/freedesktop.org.xml", "/usr/share/X11/xkb/rules/evdev.xml",
        "/usr/share/xml/iso-codes/iso_639-3.xml"}) {
    SCOPED_TRACE(path);
    const std::string original = zr_test::PlainXml(Contents(path));
    const std::string written = ReadAndWritten(original);
    EXPECT_EQ(ReadAndWritten(written), written);
    const std::string expected = WithoutBreaksBetweenTags(Canonical(original));
    const std::string actual = WithoutBreaksBetweenTags(Canonical(written));
    EXPECT_GT(actual.size(), 100'000u);
    EXPECT_TRUE(actual == expected) << "the documents differ";
  }
}

}  // namespace
