// What `cmake --install` puts in place, used the way the README says: its own programs are cut out
// of it, built against the installed libraries and talked to.

#include <gtest/gtest.h>

#include <filesystem>
#include <regex>
#include <set>

#include "tests/e2e/served.h"
#include "tests/support/wait.h"

namespace {

using namespace zrtest;

/// Runs a step of a build; its output shows only when it fails.
void Step(const std::vector<std::string>& words) {
  const auto done = RunProgram(words, {}, std::chrono::seconds(120));
  ASSERT_EQ(done.status, 0) << words.at(0) << "\n" << done.out << done.err;
}

/// A code block of the README, counted from 0.
std::string ReadMeBlock(int number) {
  const std::string readme = ReadFile(VELKORO_SOURCE_DIR "/README.md");
  std::size_t begin = 0;
  for (int block = 0; block <= number; ++block) begin = readme.find("```cpp\n", begin) + 7;
  return readme.substr(begin, readme.find("```", begin) - begin);
}

class Install : public testing::Test {
 protected:
  void SetUp() override {
    Step({VELKORO_CMAKE, "--install", VELKORO_BUILD_DIR, "--prefix", folder_.Path("usr")});
    folder_.Write("www/file", "the file");
    folder_.Write("host/main.cpp", ReadMeBlock(1));
    // The program as it is shown, but for the port, which is the system's choice, and the folder.
    hello_ = ReadMeBlock(0);
    EXPECT_EQ(hello_, ReadFile(VELKORO_SOURCE_DIR "/examples/hello/main.cpp"));
    hello_ = std::regex_replace(hello_, std::regex("127.0.0.1:8080"), "127.0.0.1:0");
    hello_ = std::regex_replace(hello_, std::regex("\"www\""), "\"" + folder_.Path("www") + "\"");
    folder_.Write("hello/main.cpp", hello_);
  }
  void Build(const std::string& name) {
    Step({VELKORO_CMAKE, "-S", folder_.Path(name), "-B", folder_.Path("built"),
          "-DCMAKE_PREFIX_PATH=" + folder_.Path("usr")});
    Step({VELKORO_CMAKE, "--build", folder_.Path("built")});
  }
  /// Builds a program by the flags of a pkg-config file.
  void BuildByFlags(const std::string& name, const std::string& package) {
    const auto flags = RunProgram(
        {"pkg-config", "--cflags", "--libs", folder_.Path("usr/lib/pkgconfig/" + package + ".pc")});
    ASSERT_EQ(flags.status, 0) << flags.err;
    std::vector<std::string> words = {"c++",
                                      "-std=c++20",
                                      folder_.Path(name + "/main.cpp"),
                                      "-o",
                                      folder_.Path(name + "/program"),
                                      "-Wl,-rpath," + folder_.Path("usr/lib")};
    std::istringstream text(flags.out);
    for (std::string word; text >> word;) words.push_back(word);
    Step(words);
  }
  /// Starts a built program, asks it for pages once it says its URL, and ends it.
  static void ExpectServes(const std::vector<std::string>& program, const std::string& path,
                           const std::string& page) {
    BackgroundProgram host(program, std::nullopt);
    std::smatch url;
    std::string out;
    const std::regex pattern("https?://127.0.0.1:[1-9][0-9]*");
    ASSERT_TRUE(WaitFor([&] {
      out = host.Output();
      return std::regex_search(out, url, pattern);
    })) << host.Errors();
    const std::string got = RunProgram(CurlWords({"-w", "%{http_code}", url[0].str() + path})).out;
    EXPECT_TRUE(got.ends_with(page)) << got;
    host.EndInput();
    EXPECT_TRUE(host.WaitForEnd(std::chrono::seconds(20)));
    EXPECT_EQ(host.Status(), 0) << host.Errors();
  }
  static void ExpectIsHello(const std::string& program) {
    ExpectServes({program}, "/hello/Ada", "Hello Ada200");
    ExpectServes({program}, "/file", "the file200");
  }
  static void ExpectIsHost(const std::string& program) {
    ExpectServes({program, TestCertificate().certificate, TestCertificate().privateKey}, "/x",
                 "404");
  }

  const TemporaryFolder folder_;
  std::string hello_;
};

TEST_F(Install, TheProgramsOfTheReadMeBuildWithThePackageAndRun) {
  folder_.Write("hello/CMakeLists.txt",
                ReadFile(VELKORO_SOURCE_DIR "/examples/hello/CMakeLists.txt") +
                    "add_executable(whole main.cpp)\n"
                    "target_link_libraries(whole PRIVATE velkoro::server_static)\n");
  Build("hello");
  ExpectIsHello(folder_.Path("built/hello"));
  ExpectIsHello(folder_.Path("built/whole"));
  folder_.Write("host/CMakeLists.txt",
                ReadFile(VELKORO_SOURCE_DIR "/examples/host/CMakeLists.txt"));
  EXPECT_EQ(ReadMeBlock(1), ReadFile(VELKORO_SOURCE_DIR "/examples/host/main.cpp"));
  std::filesystem::remove_all(folder_.Path("built"));
  Build("host");
  ExpectIsHost(folder_.Path("built/host"));
}

TEST_F(Install, PkgConfigKnowsBothLibraries) {
  BuildByFlags("hello", "velkoro-server");
  ExpectIsHello(folder_.Path("hello/program"));
  BuildByFlags("host", "velkoro");
  ExpectIsHost(folder_.Path("host/program"));
}

TEST_F(Install, WhatIsInPlaceIsThePublicPart) {
  EXPECT_EQ(RunProgram({folder_.Path("usr/bin/velkoro"), "--version"}).out, "velkoro 1.28.1\n");
  std::set<std::string> headers;
  for (const auto& entry :
       std::filesystem::recursive_directory_iterator(folder_.Path("usr/include")))
    if (entry.is_regular_file())
      headers.insert(entry.path().lexically_relative(folder_.Path("usr/include")).string());
  EXPECT_EQ(headers,
            (std::set<std::string>{"velkoro/client.h", "velkoro/documents.h", "velkoro/host.h",
                                   "velkoro/server.h", "velkoro/store.h"}));
}

}  // namespace
