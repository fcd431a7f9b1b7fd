// Many clients, slow clients and clients that go away.

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <memory>
#include <sstream>

#include "tests/e2e/served.h"
#include "tests/support/raw_client.h"
#include "tests/support/wait.h"

namespace {

using namespace zrtest;

// The sanitizers keep books of their own, several times the size of what they watch.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr long kMaxKilobytes = 1024 * 1024;
#else
constexpr long kMaxKilobytes = 128 * 1024;
#endif

/// User and system time of a process in clock ticks.
long CpuTicks(int id) {
  const std::string text = ReadFile("/proc/" + std::to_string(id) + "/stat");
  std::istringstream fields(text.substr(text.rfind(')') + 1));
  std::vector<std::string> words;
  for (std::string word; fields >> word;) words.push_back(word);
  return std::stol(words.at(11)) + std::stol(words.at(12));
}

/// The largest resident size of a process so far in KiB.
long PeakKilobytes(int id) {
  const std::string text = ReadFile("/proc/" + std::to_string(id) + "/status");
  return std::stol(text.substr(text.find("VmHWM:") + 6));
}

TEST(Load, ServesAnotherWhileThousandsAreSilent) {
  const TemporaryFolder folder;
  folder.Write("a", "first");
  Served served(folder, {"http", "https"});
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, 4096);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  std::vector<RawClient> silent;
  for (int i = 0; i < 2000; ++i) {
    silent.emplace_back(served.Port(i % 2 == 0 ? "http" : "https"));
    ASSERT_TRUE(silent.back().Connected());
    silent.back().Send(i % 4 < 2 ? "" : "GET /a HT");  // a part of a head, or of a handshake
  }
  EXPECT_EQ(served.Curl("http", "/a").out, "first");
  std::vector<std::string> words = {
      "--parallel", "--parallel-immediate", "--parallel-max", "200", "--http1.1", "--fail"};
  for (int i = 0; i < 200; ++i) words.push_back(served.Url("https", "/a"));
  const auto got = RunProgram(CurlWords(words), {}, std::chrono::seconds(90));
  EXPECT_EQ(got.status, 0) << got.err;
  EXPECT_EQ(got.out.size(), 200 * std::string("first").size());
  EXPECT_TRUE(served.WaitForLog(201));
  // With nothing to do, nothing runs. The wait is for time that must pass: 3 s of idling.
  const long before = CpuTicks(served.Program().Id());
  RawClient quiet(served.Port("http"));
  EXPECT_EQ(quiet.ReadSome(1, std::chrono::seconds(3)), "");
  EXPECT_LE(CpuTicks(served.Program().Id()) - before, 10);
  EXPECT_EQ(served.Stop(), 0);
}

TEST(Load, KeepsFilesOfSlowReadersOutOfMemory) {
  const TemporaryFolder folder;
  folder.Write("a", "first");
  const std::string file = folder.Write("big", "");
  std::filesystem::resize_file(file, 200u << 20);
  Served served(folder, {"http", "https"}, {"--grace", "0"});
  std::vector<std::unique_ptr<BackgroundProgram>> slow;
  for (int i = 0; i < 32; ++i) {
    slow.push_back(std::make_unique<BackgroundProgram>(
        CurlWords({"--limit-rate", "4m", served.Url(i % 2 == 0 ? "http" : "https", "/big")})));
  }
  for (const auto& client : slow) {
    EXPECT_TRUE(WaitFor([&] { return client->Output().size() > (4u << 20); }));
  }
  RawClient unread(served.Port("http"), 4096);
  for (int i = 0; i < 200; ++i) unread.Send("GET /big HTTP/1.1\r\n\r\n");
  EXPECT_EQ(served.Curl("https", "/a").out, "first");
  EXPECT_LT(PeakKilobytes(served.Program().Id()), kMaxKilobytes);
  EXPECT_EQ(served.Stop(), 0);
}

}  // namespace
