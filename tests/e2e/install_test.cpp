// What `cmake --install` puts in place, used the way the README says: its own host program is cut
// out of it, built against the installed library and talked to.

#include <gtest/gtest.h>

#include <regex>

#include "tests/e2e/served.h"
#include "tests/support/wait.h"

namespace {

using namespace zrtest;

/// Runs a step of a build; its output shows only when it fails.
void Step(const std::vector<std::string>& words) {
  const auto done = RunProgram(words, {}, std::chrono::seconds(120));
  ASSERT_EQ(done.status, 0) << words.at(0) << "\n" << done.out << done.err;
}

class Install : public testing::Test {
 protected:
  void SetUp() override {
    Step({VELKORO_CMAKE, "--install", VELKORO_BUILD_DIR, "--prefix", folder_.Path("usr")});
  }
  /// Starts a built host program and asks it for a page until it answers.
  static void ExpectServes(const std::string& program) {
    BackgroundProgram host({program, TestCertificate().certificate, TestCertificate().privateKey},
                           std::nullopt);
    std::smatch url;
    std::string out;
    const std::regex pattern("https://127.0.0.1:[1-9][0-9]*/");
    ASSERT_TRUE(WaitFor([&] {
      out = host.Output();
      return std::regex_search(out, url, pattern);
    })) << host.Errors();
    EXPECT_EQ(RunProgram(CurlWords({"-o", "/dev/null", "-w", "%{http_code}", url[0]})).out, "404");
    host.EndInput();
    EXPECT_TRUE(host.WaitForEnd(std::chrono::seconds(20)));
    EXPECT_EQ(host.Status(), 0) << host.Errors();
  }

  const TemporaryFolder folder_;
};

TEST_F(Install, TheHostProgramOfTheReadMeBuildsWithThePackageAndRuns) {
  const std::string readme = ReadFile(VELKORO_SOURCE_DIR "/README.md");
  const std::size_t begin = readme.find("```cpp\n") + 7;
  folder_.Write("host/main.cpp", readme.substr(begin, readme.find("```", begin) - begin));
  folder_.Write("host/CMakeLists.txt",
                ReadFile(VELKORO_SOURCE_DIR "/examples/host/CMakeLists.txt"));
  Step({VELKORO_CMAKE, "-S", folder_.Path("host"), "-B", folder_.Path("built"),
        "-DCMAKE_PREFIX_PATH=" + folder_.Path("usr")});
  Step({VELKORO_CMAKE, "--build", folder_.Path("built")});
  ExpectServes(folder_.Path("built/host"));
  EXPECT_EQ(readme.substr(begin, readme.find("```", begin) - begin),
            ReadFile(VELKORO_SOURCE_DIR "/examples/host/main.cpp"));
}

TEST_F(Install, TheProgramAndTheStaticLibraryAreInPlace) {
  EXPECT_EQ(RunProgram({folder_.Path("usr/bin/velkoro"), "--version"}).out, "velkoro 1.28.1\n");
  folder_.Write("core/main.cpp",
                "#include \"host/application.h\"\n"
                "#include \"velkoro/documents.h\"\n#include \"velkoro/host.h\"\n"
                "#include \"velkoro/store.h\"\n"
                "int main() { ZrQuarnApplication2 application(nullptr, {}, {});\n"
                "  if (velkoro::Document(\"a\").Root().Name() != velkoro::Escape(\"a\") ||\n"
                "      velkoro::Store(\"none.xml\").Get(\"a\", 1) != 1) return 1;\n"
                "  return application.newId().starts_with(\"id*\") ? ServerPort(nullptr) : 1; }\n");
  folder_.Write("core/CMakeLists.txt",
                "cmake_minimum_required(VERSION 3.25)\nproject(core LANGUAGES CXX)\n"
                "find_package(velkoro 1.28 REQUIRED)\nadd_executable(core main.cpp)\n"
                "target_link_libraries(core PRIVATE velkoro::core)\n");
  Step({VELKORO_CMAKE, "-S", folder_.Path("core"), "-B", folder_.Path("built"),
        "-DCMAKE_PREFIX_PATH=" + folder_.Path("usr")});
  Step({VELKORO_CMAKE, "--build", folder_.Path("built")});
  Step({folder_.Path("built/core")});
}

TEST_F(Install, PkgConfigKnowsTheLibrary) {
  const auto flags = RunProgram(
      {"pkg-config", "--cflags", "--libs", folder_.Path("usr/lib/pkgconfig/velkoro.pc")});
  ASSERT_EQ(flags.status, 0) << flags.err;
  std::vector<std::string> words = {"c++", VELKORO_SOURCE_DIR "/examples/host/main.cpp", "-o",
                                    folder_.Path("host"), "-Wl,-rpath," + folder_.Path("usr/lib")};
  std::istringstream text(flags.out);
  for (std::string word; text >> word;) words.push_back(word);
  Step(words);
  ExpectServes(folder_.Path("host"));
}

}  // namespace
