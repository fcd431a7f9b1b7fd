#include "net/zrsocketipvx.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <netdb.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <sstream>
#include <string_view>
#include <thread>

#include "net/zrtrace.h"
#include "platform/zrsocket.h"

using namespace std::chrono_literals;

// The resolver of this program: it has no answer for one name until the test ends.
extern "C" int getaddrinfo(const char* node, const char* service, const addrinfo* hints,
                           addrinfo** result) {
  static const auto real =
      reinterpret_cast<decltype(&::getaddrinfo)>(::dlsym(RTLD_NEXT, "getaddrinfo"));
  if (node != nullptr && std::string_view(node) == "hangs.test") {
    std::this_thread::sleep_for(std::chrono::seconds(30));
    return EAI_AGAIN;
  }
  return real(node, service, hints, result);
}

namespace {

const ZrSocketIPvx::PeerFilter kAnyone = [](ZrHostInfo_t&) { return true; };

class SocketTest : public testing::Test {
 protected:
  void Listen() { ASSERT_EQ(listener_->listen("10.9.8.7", port_, 16), ZrSocketResult::kSuccess); }
  void Connect(ZrSocketIPvx& client, ZrSocketIPvx& server, const std::string& host = "127.0.0.1") {
    ASSERT_EQ(client.connect(host, port_), ZrSocketResult::kSuccess);
    ASSERT_GE(listener_->accept(server, 10'000, kAnyone), 0);
  }
  /// Receives until something other than "nothing yet" happens.
  static std::string Receive(ZrSocketIPvx& socket) {
    char bytes[64];
    std::size_t count = 0;
    EXPECT_TRUE(socket.waitReadable(10'000, socket.primaryDescriptor()));
    EXPECT_EQ(socket.receive(bytes, sizeof bytes, count), ZrSocketResult::kSuccess);
    return {bytes, count};
  }

  /// Ends the listening endpoint.
  void Close() { listener_.reset(); }

  std::unique_ptr<ZrSocketIPvx> listener_ = std::make_unique<ZrSocketIPvx>();
  int port_ = 0;
};

TEST_F(SocketTest, PortZeroBecomesTheSystemsChoice) {
  std::ostringstream trace;
  ZrTrace::Instance().Redirect(ZrTrace::kSockets, &trace);
  Listen();
  ZrTrace::Instance().Redirect(ZrTrace::kSockets, nullptr);
  EXPECT_GT(port_, 0);
  EXPECT_EQ(listener_->port(), port_);
  EXPECT_TRUE(listener_->listening());
  EXPECT_NE(trace.str().find("bound at port number " + std::to_string(port_) + "\n"),
            std::string::npos);
  const int first = std::max(listener_->primaryDescriptor(), 0);
  EXPECT_EQ(zr::LocalPort(first > 0 ? first : listener_->secondaryDescriptor()), port_);
}

TEST_F(SocketTest, PeersOfBothFamiliesReachTheOnePort) {
  Listen();
  for (const std::string host : {"127.0.0.1", "::1"}) {
    SCOPED_TRACE(host);
    if (host == "::1" && listener_->primaryDescriptor() < 0) continue;  // a machine without IPv6
    ZrSocketIPvx client;
    ZrSocketIPvx server(1);
    Connect(client, server, host);
    EXPECT_TRUE(server.accepted());
    EXPECT_TRUE(server.peerAddress().ends_with(host)) << server.peerAddress();
    EXPECT_EQ(server.peerPort(), std::to_string(zr::LocalPort(client.primaryDescriptor())));
    std::size_t sent = 0;
    EXPECT_EQ(client.send("hello", 5, sent), ZrSocketResult::kSuccess);
    EXPECT_EQ(Receive(server), "hello");
  }
}

TEST_F(SocketTest, ATakenPortIsRefusedAndAFreedOneTakenAtOnce) {
  Listen();
  ZrSocketIPvx client;
  {
    ZrSocketIPvx server(1);
    Connect(client, server);
    for (int port : {port_, 65536, -1}) {
      SCOPED_TRACE(port);
      ZrSocketIPvx second;
      testing::internal::CaptureStderr();
      EXPECT_EQ(second.listen("", port, 16), ZrSocketResult::kListenFailed);
      const std::string said = testing::internal::GetCapturedStderr();
      EXPECT_TRUE(port == port_ ? said == "Could not bind\n" : said.starts_with("getaddrinfo: "));
      EXPECT_EQ(second.port(), -1);
    }
  }
  // The server closed first, so its side of the connection lingers on the port.
  ZrSocketIPvx next;
  Close();
  EXPECT_EQ(next.listen("", port_, 16), ZrSocketResult::kSuccess);
}

TEST_F(SocketTest, AcceptReturnsEmptyHandedInTime) {
  Listen();
  ZrSocketIPvx server(1);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(listener_->accept(server, 20, kAnyone), -1);
  const int sockets = listener_->secondaryDescriptor() >= 0 ? 2 : 1;
  EXPECT_GE(std::chrono::steady_clock::now() - start, 20ms * sockets);
  EXPECT_EQ(listener_->lastAccept(), ZrAcceptStatus::kNoPeer);
}

TEST_F(SocketTest, TheFilterSeesThePeerAndMayRefuseIt) {
  Listen();
  ZrSocketIPvx client;
  ASSERT_EQ(client.connect("127.0.0.1", port_), ZrSocketResult::kSuccess);
  ZrSocketIPvx server(1);
  std::string seen;
  EXPECT_EQ(listener_->accept(server, 10'000,
                              [&](ZrHostInfo_t& peer) {
                                seen = peer.port;
                                return false;
                              }),
            -1);
  EXPECT_EQ(seen, std::to_string(zr::LocalPort(client.primaryDescriptor())));
  EXPECT_EQ(server.primaryDescriptor(), -1);
  EXPECT_EQ(Receive(client), "") << "the refused peer finds its connection closed";

  ASSERT_EQ(client.connect("127.0.0.1", port_), ZrSocketResult::kSuccess);
  EXPECT_THROW(listener_->accept(server, 10'000, nullptr), std::bad_function_call);
}

TEST_F(SocketTest, ReceiveTellsEndNothingAndFailureApart) {
  Listen();
  ZrSocketIPvx client;
  auto server = std::make_unique<ZrSocketIPvx>(1);
  Connect(client, *server);
  ZrSocketIPvx other;
  ZrSocketIPvx otherServer(1);
  Connect(other, otherServer);
  char byte = 0;
  std::size_t count = 1;
  testing::internal::CaptureStderr();
  EXPECT_EQ(client.receive(&byte, 1, count), ZrSocketResult::kSuccess);
  EXPECT_TRUE(count == 0 && client.wouldBlock() && !client.closed() && client.lastError() == 0);
  count = 1;
  EXPECT_EQ(client.receiveIfReady(&byte, 1, count), ZrSocketResult::kSuccess);
  EXPECT_EQ(count, 0U);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");

  server.reset();
  EXPECT_EQ(Receive(client), "");
  EXPECT_TRUE(client.closed() && !client.wouldBlock());
  EXPECT_FALSE(other.closed());

  ZrSocketIPvx none;
  testing::internal::CaptureStderr();
  EXPECT_EQ(none.receive(&byte, 1, count), ZrSocketResult::kSuccess);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "ZrSocketIPvx::Receive(): error in read (errno=9) Bad file descriptor\n");
  EXPECT_EQ(none.lastError(), EBADF);
}

TEST_F(SocketTest, SendTellsAFullSocketFromAGonePeer) {
  Listen();
  ZrSocketIPvx client;
  auto server = std::make_unique<ZrSocketIPvx>(1);
  Connect(client, *server);
  const std::string large(64 << 20, 'x');  // more than any pair of socket buffers holds
  std::size_t sent = 0;
  EXPECT_EQ(client.send(large.data(), large.size(), sent), ZrSocketResult::kSendIncomplete);
  EXPECT_TRUE(sent > 0 && sent < large.size() && client.lastSendError() == 0);
  server.reset();  // with bytes unread: the peer gets a reset
  EXPECT_TRUE(client.waitReadable(10'000, client.primaryDescriptor()));
  while (client.lastSendError() == 0) {
    ASSERT_EQ(client.send(large.data(), large.size(), sent), ZrSocketResult::kSendIncomplete);
    EXPECT_EQ(sent, 0U);
  }

  ZrSocketIPvx none;
  sent = 77;
  testing::internal::CaptureStderr();
  EXPECT_EQ(none.send("x", 1, sent), ZrSocketResult::kSuccess);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "no socket\n");
  EXPECT_EQ(sent, 77U);
}

TEST_F(SocketTest, ConnectSaysWhatFailed) {
  Listen();
  Close();
  const struct {
    const char* name;
    std::string host;
    int port;
    const char* said;
  } cases[] = {{"nobody listens", "127.0.0.1", port_, "Could not connect, fd: "},
               {"no such host", "host.invalid", 80, "getaddrinfo: "},
               {"no such port", "127.0.0.1", 65536, "getaddrinfo: "}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    ZrSocketIPvx client;
    testing::internal::CaptureStderr();
    EXPECT_EQ(client.connect(c.host, c.port), ZrSocketResult::kConnectFailed);
    EXPECT_TRUE(testing::internal::GetCapturedStderr().starts_with(c.said));
    EXPECT_TRUE(client.closed());
    EXPECT_EQ(client.primaryDescriptor(), -1);
  }
}

TEST_F(SocketTest, ConnectDoesNotWaitForTheResolver) {
  struct Case {
    std::chrono::milliseconds limit;
    bool cancelled;
    ZrConnectFailure failure;
  };
  for (const Case& c : {Case{50ms, false, ZrConnectFailure::kTimedOut},
                        Case{30s, true, ZrConnectFailure::kCancelled}}) {
    ZrSocketIPvx socket;
    socket.setQuiet(true);
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(socket.connect("hangs.test", 80, c.limit, [&c] { return c.cancelled; }),
              ZrSocketResult::kConnectFailed);
    EXPECT_EQ(socket.connectFailure(), c.failure);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 20s);
  }
}

}  // namespace
