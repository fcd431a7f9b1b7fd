#include "net/zrtransceiverserver.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include "tests/support/raw_client.h"
#include "tests/support/server_bed.h"

namespace {

using namespace std::chrono_literals;
using namespace zrtest;

// The soft limit of descriptors, put back at the end.
class DescriptorLimit {
 public:
  DescriptorLimit() { getrlimit(RLIMIT_NOFILE, &before_); }
  ~DescriptorLimit() { Set(before_.rlim_cur); }
  void Set(rlim_t soft) {
    const rlimit now{soft, before_.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &now), 0);
  }
  rlim_t Before() const { return before_.rlim_cur; }

 private:
  rlimit before_{};
};

TEST(Listener, TakesAsManyPeersAsTheDescriptorsAllow) {
  DescriptorLimit limit;
  limit.Set(80);
  ServerBed bed;
  const int port = bed.Open(zr::kProtocolHttp);
  limit.Set(limit.Before());
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

TEST(Listener, WaitsWhenDescriptorsRunOut) {
  ServerBed bed;
  const int port = bed.Open(zr::kProtocolHttp);
  RawClient first(port);  // starts the I/O jobs
  ASSERT_TRUE(bed.WaitForConnections(1));
  DescriptorLimit limit;
  const int next = open("/dev/null", O_RDONLY | O_CLOEXEC);
  close(next);
  limit.Set(static_cast<rlim_t>(next) + 1);  // room for the client, none for the server's side
  RawClient client(port);
  ASSERT_TRUE(client.Connected());
  client.Send("GET / HTTP/1.1\r\n\r\n");
  EXPECT_EQ(client.ReadSome(1, 1s), "");
  limit.Set(limit.Before());
  EXPECT_NE(client.ReadUntil("/|"), "");
}

}  // namespace
