#include "net/tcp_socket.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <netdb.h>

#include <atomic>
#include <cerrno>
#include <optional>

#include "platform/socket.h"
#include "tests/support/captured.h"
#include "tests/support/left_behind.h"
#include "tests/support/scripted_line.h"
#include "tests/support/wait.h"

using namespace std::chrono_literals;

std::atomic<bool> resolverHangs{true};

// The resolver of this program: it has no answer for one name as long as it hangs.
extern "C" int getaddrinfo(const char* node, const char* service, const addrinfo* hints,
                           addrinfo** result) {
  static const auto real =
      reinterpret_cast<decltype(&::getaddrinfo)>(::dlsym(RTLD_NEXT, "getaddrinfo"));
  if (node != nullptr && std::string_view(node) == "hangs.test") {
    resolverHangs.wait(true);
    return EAI_NONAME;
  }
  return real(node, service, hints, result);
}

namespace {

TEST(TcpSocket, AnAddressThatIsGivenIsTheOnlyOne) {
  int port = 0;
  const auto reaches = [&port](const char* host) {
    ZrSocketIPvx client;
    client.setQuiet(true);
    return client.connect(host, port) == ZrSocketResult::kSuccess;
  };
  std::optional<ZrSocketIPvx> listener(std::in_place);
  ASSERT_EQ(listener->listenAt("127.0.0.1", port, 16), ZrSocketResult::kSuccess);
  EXPECT_TRUE(reaches("127.0.0.1"));
  EXPECT_FALSE(reaches("127.0.0.2"));
  EXPECT_FALSE(reaches("::1"));
  ZrSocketIPvx second;
  EXPECT_EQ(second.listenAt("127.0.0.1", port, 16), ZrSocketResult::kListenFailed);
  EXPECT_EQ(second.listenErrorText(), "");
  EXPECT_EQ(second.listenAt("203.0.113.1", port, 16), ZrSocketResult::kListenFailed);
  EXPECT_EQ(second.listenErrorText(), "Cannot assign requested address");
  // A name has all its addresses on one port, the system's choice as well.
  listener.emplace();
  port = 0;
  ASSERT_EQ(listener->listenAt("localhost", port, 16), ZrSocketResult::kSuccess);
  for (const ZrSocketAddress& address : zr::ResolveHost("localhost", port).addresses)
    EXPECT_TRUE(reaches(zr::NumericName(address).host.c_str())) << zr::NumericName(address).host;
  // The minimal dialect's way takes whatever address is given for all of them.
  listener.emplace();
  port = 0;
  ASSERT_EQ(listener->listen("10.9.8.7", port, 16), ZrSocketResult::kSuccess);
  EXPECT_TRUE(reaches("127.0.0.1"));
  EXPECT_EQ(reaches("::1"), listener->primaryDescriptor() >= 0);
  int beyond = 65536;
  second.setQuiet(true);
  EXPECT_EQ(second.listen("", beyond, 16), ZrSocketResult::kListenFailed);
}

TEST(TcpSocket, ReceiveTellsEndNothingAndFailureApart) {
  int port = 0;
  ZrSocketIPvx listener;
  ASSERT_EQ(listener.listen("", port, 16), ZrSocketResult::kSuccess);
  ZrSocketIPvx client;
  auto server = std::make_unique<ZrSocketIPvx>(1);
  ASSERT_EQ(client.connect("127.0.0.1", port), ZrSocketResult::kSuccess);
  ASSERT_GE(listener.accept(*server, 10'000, [](ZrHostInfo_t&) { return true; }), 0);
  char byte = 0;
  std::size_t count = 1;
  testing::internal::CaptureStderr();
  EXPECT_EQ(client.receive(&byte, 1, count), ZrSocketResult::kSuccess);
  EXPECT_TRUE(count == 0 && client.wouldBlock() && !client.closed() && client.lastError() == 0);
  server.reset();
  EXPECT_TRUE(client.waitReadable(10'000, client.primaryDescriptor()));
  EXPECT_EQ(client.receive(&byte, 1, count), ZrSocketResult::kSuccess);
  EXPECT_TRUE(count == 0 && client.closed() && !client.wouldBlock());
  EXPECT_EQ(zrtest::CapturedErrors(), "");

  // A failure is no end, also where one was seen before.
  zrtest::ScriptedLine line;
  ZrSocketIPvx broken(line);
  line.ended = true;
  line.failReceiveAt = 2;
  EXPECT_EQ(broken.receive(&byte, 1, count), ZrSocketResult::kSuccess);
  EXPECT_TRUE(broken.closed());
  testing::internal::CaptureStderr();
  EXPECT_EQ(broken.receive(&byte, 1, count), ZrSocketResult::kSuccess);
  EXPECT_TRUE(count == 0 && !broken.closed() && broken.lastError() == ECONNRESET);
  EXPECT_EQ(zrtest::CapturedErrors(),
            "ZrSocketIPvx::Receive(): error in read (errno=104) Connection reset by peer\n");
}

// However many are given up, their threads are bounded and go when the resolver's time is over.
TEST(TcpSocket, ConnectDoesNotWaitForTheResolver) {
  const auto before = zrtest::Counts::OfProcess().values[zrtest::Counts::kThreads];
  const auto threads = [before] {
    return zrtest::Counts::OfProcess().values[zrtest::Counts::kThreads] - before;
  };
  resolverHangs = true;
  ZrSocketIPvx socket;
  socket.setQuiet(true);
  for (std::size_t i = 0; i < zr::kMostLookups + 6; ++i) {
    const bool cancelled = i == zr::kMostLookups + 5;
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(socket.connect("hangs.test", 80, cancelled ? 30s : 1ms, [=] { return cancelled; }),
              ZrSocketResult::kConnectFailed);
    EXPECT_EQ(socket.connectFailure(),
              cancelled ? ZrConnectFailure::kCancelled : ZrConnectFailure::kTimedOut);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 20s);
  }
  EXPECT_LE(threads(), zr::kMostLookups);
  resolverHangs = false;
  resolverHangs.notify_all();
  EXPECT_TRUE(zrtest::WaitFor([&] { return threads() == 0; })) << threads();
  EXPECT_EQ(socket.connect("hangs.test", 80), ZrSocketResult::kConnectFailed);
  EXPECT_EQ(socket.connectFailure(), ZrConnectFailure::kNoHost);
}

}  // namespace
