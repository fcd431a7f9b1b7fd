// What the servers of every protocol have in common: how they listen, send and give up.

#include "servers/tcp_server.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include "tests/support/raw_client.h"
#include "tests/support/run.h"
#include "tests/support/server_bed.h"

namespace {

using namespace std::chrono_literals;
using namespace zrtest;

// A length that cannot be kept ends the connection behind the bytes there are.
TEST(TcpServer, SendsAllThatItHasBeforeItCloses) {
  const TemporaryFolder folder;
  std::string content(64 * 1024 * 1024, '\0');
  for (std::size_t i = 0; i < content.size(); i += 97) content[i] = static_cast<char>(i);
  folder.Write("big", content);
  ServerBed bed;
  bed.onMessage = [&](ServerBed& self, const ServerBed::Message& m) {
    const auto answer = m->MakeResponse();
    answer->SetStatus(200);
    answer->SetFileBody(folder.Path(m->path.substr(1)), content.size() + 1);
    self.Send(*m, answer);
    return 1;
  };
  for (const auto kind : {zr::kProtocolHttp, zr::kProtocolHttps}) {
    const std::string url = std::string(zr::ProtocolSchemeName(kind)) +
                            "://127.0.0.1:" + std::to_string(bed.Open(kind));
    EXPECT_EQ(RunProgram({"curl", "-ks", url + "/gone"}).status, 18);
    const auto cut = RunProgram({"curl", "-ks", url + "/big"});
    EXPECT_EQ(cut.status, 18);
    EXPECT_TRUE(cut.out == content);
  }
}

TEST(TcpServer, TheHandshakeMustBeCompleteInAMinute) {
  ManualClock clock;
  ServerBed bed(clock);
  RawClient client(bed.Open(zr::kProtocolHttps));
  client.Send(std::string_view("\x16\x03\x01", 3));
  ASSERT_TRUE(bed.WaitForConnections(1));  // its time runs from here
  clock.Advance(61s);
  // The connection may be entered with the housekeeper only now, and is then due a moment later.
  const std::int64_t end = clock.MonotonicNs() + 40'000'000'000;
  EXPECT_TRUE(WaitFor([&] {
    if (clock.MonotonicNs() < end) clock.Advance(300ms);
    bed.transceiver.WakeHousekeeper();
    return bed.transceiver.ConnectionCount() == 0;
  }));
  EXPECT_EQ(client.ReadToEnd(), "");
}

TEST(TcpServer, TakesAsManyPeersAsTheDescriptorsAllow) {
  rlimit before{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
  const rlimit few{80, before.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
  ServerBed bed;
  const int port = bed.Open(zr::kProtocolHttp);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
  constexpr std::size_t kCap = 80 - 10 - 20;
  std::vector<RawClient> clients;
  for (std::size_t i = 0; i < kCap; ++i) clients.emplace_back(port);
  ASSERT_TRUE(bed.WaitForConnections(kCap));
  RawClient over(port);
  EXPECT_EQ(over.ReadToEnd(), "") << "one too many is closed at once";
  clients.front().Send("GET / HTTP/1.1\r\n\r\n");
  EXPECT_NE(clients.front().ReadUntil("/|"), "");
  while (clients.size() > 1) clients.pop_back();
  ASSERT_TRUE(bed.WaitForConnections(1));
  RawClient again(port);
  EXPECT_TRUE(bed.WaitForConnections(2));
}

}  // namespace
