// Socket calls whose failures matter: broken peers without SIGPIPE, limits, descriptors that ran
// out.

#include "platform/zrsocket.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "platform/zroutput.h"
#include "tests/support/temporary_folder.h"

using namespace std::chrono_literals;

namespace {

ZrSocketAddress Loopback(int port) { return zr::ResolveHost("127.0.0.1", port).addresses.at(0); }

struct Connected {
  Connected() {
    listener = zr::OpenListener(Loopback(0), 8);
    client = zr::ConnectTo(Loopback(zr::LocalPort(listener.Get())), 10s);
    EXPECT_EQ(zr::WaitReadable(listener.Get(), 10s), ZrWaitStatus::kReady);
    server = zr::AcceptPeer(listener.Get()).socket;
  }
  // After it the next write fails; without care it would also raise SIGPIPE.
  void BreakClient() {
    const linger now{1, 0};
    ::setsockopt(client.Get(), SOL_SOCKET, SO_LINGER, &now, sizeof now);
    client.Close();
    EXPECT_EQ(zr::WaitReadable(server.Get(), 10s), ZrWaitStatus::kReady);
    char byte = 0;
    EXPECT_EQ(zr::ReceiveBytes(server.Get(), {&byte, 1}).error, ECONNRESET);
  }
  ZrDescriptor listener;
  ZrDescriptor client;
  ZrDescriptor server;
};

TEST(Socket, WritingToAGonePeerIsAResultAndNoSignal) {
  ASSERT_NE(::signal(SIGPIPE, SIG_DFL), SIG_ERR);  // a raised signal would end this program
  Connected both;
  both.BreakClient();
  const zrtest::TemporaryFolder folder;
  const auto file = ZrFile::Open(folder.Write("file", "bytes"));
  ASSERT_NE(file, nullptr);
  const std::string_view pieces[] = {"a", "b"};
  EXPECT_EQ(zr::SendBytes(both.server.Get(), "x").status, ZrIoStatus::kClosed);
  EXPECT_EQ(zr::SendPieces(both.server.Get(), pieces).status, ZrIoStatus::kClosed);
  EXPECT_EQ(zr::SendFile(both.server.Get(), *file, 0, 5).status, ZrIoStatus::kClosed);
  sigset_t mask;
  ASSERT_EQ(::pthread_sigmask(SIG_BLOCK, nullptr, &mask), 0);
  EXPECT_EQ(::sigismember(&mask, SIGPIPE), 0) << "the thread's mask is put back";

  // The same for a log that nobody reads any more.
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  const int saved = ::dup(STDOUT_FILENO);
  ::dup2(ends[1], STDOUT_FILENO);
  ::close(ends[0]);
  ::close(ends[1]);
  EXPECT_FALSE(zr::WriteOutputLine("lost"));
  ::dup2(saved, STDOUT_FILENO);
  ::close(saved);
}

TEST(Socket, SendsAFileInPiecesFromAnyOffset) {
  Connected both;
  const zrtest::TemporaryFolder folder;
  const auto file = ZrFile::Open(folder.Write("file", "0123456789"));
  EXPECT_EQ(zr::SendFile(both.server.Get(), *file, 3, 4).count, 4U);
  EXPECT_EQ(zr::SendFile(both.server.Get(), *file, 8, 100).count, 2U);
  const ZrIoResult end = zr::SendFile(both.server.Get(), *file, 10, 5);
  EXPECT_EQ(end.status, ZrIoStatus::kDone);
  EXPECT_EQ(end.count, 0U);
  char bytes[16];
  ASSERT_EQ(zr::WaitReadable(both.client.Get(), 10s), ZrWaitStatus::kReady);
  const ZrIoResult got = zr::ReceiveBytes(both.client.Get(), bytes);
  EXPECT_EQ(std::string_view(bytes, got.count), "345689");
}

TEST(Socket, UrgentReadinessWithoutUrgentDataIsNoFailure) {
  Connected both;
  EXPECT_EQ(zr::DropUrgentByte(both.server.Get()).status, ZrIoStatus::kWouldBlock);
  ASSERT_EQ(::send(both.client.Get(), "!", 1, MSG_OOB), 1);
  ASSERT_EQ(zr::WaitReadable(both.server.Get(), 10s), ZrWaitStatus::kReady);
  EXPECT_EQ(zr::DropUrgentByte(both.server.Get()).count, 1U);
  EXPECT_EQ(zr::DropUrgentByte(both.server.Get()).status, ZrIoStatus::kWouldBlock);
}

TEST(Socket, DescriptorsThatRanOutAreToldApart) {
  const ZrDescriptor listener = zr::OpenListener(Loopback(0), 8);
  EXPECT_EQ(zr::AcceptPeer(listener.Get()).status, ZrAcceptStatus::kNoPeer);
  const ZrDescriptor client = zr::ConnectTo(Loopback(zr::LocalPort(listener.Get())), 10s);
  ASSERT_EQ(zr::WaitReadable(listener.Get(), 10s), ZrWaitStatus::kReady);
  rlimit before{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
  const rlimit none{static_cast<rlim_t>(client.Get()) + 1, before.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
  const ZrAcceptStatus status = zr::AcceptPeer(listener.Get()).status;
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
  EXPECT_EQ(status, ZrAcceptStatus::kExhausted);
  EXPECT_EQ(zr::AcceptPeer(listener.Get()).status, ZrAcceptStatus::kAccepted);
  EXPECT_EQ(zr::AcceptPeer(client.Get()).status, ZrAcceptStatus::kFailed);
}

TEST(Socket, ConnectingIsBoundedAndRefusalsAreQuick) {
  int port = 0;
  {
    const ZrDescriptor gone = zr::OpenListener(Loopback(0), 1);
    port = zr::LocalPort(gone.Get());
  }
  int error = 0;
  EXPECT_FALSE(zr::ConnectTo(Loopback(port), 10s, &error).IsOpen());
  EXPECT_EQ(error, ECONNREFUSED);

  // A listener that accepts nobody answers until its queue is full, and then leaves peers waiting.
  const ZrDescriptor full = zr::OpenListener(Loopback(0), 0);
  std::vector<ZrDescriptor> held;
  do {
    held.push_back(zr::ConnectTo(Loopback(zr::LocalPort(full.Get())), 50ms, &error));
  } while (held.back().IsOpen() && held.size() < 100);
  EXPECT_EQ(error, ETIMEDOUT);
}

TEST(Socket, NamesAndPorts) {
  EXPECT_TRUE(zr::IsNumericAddress("127.0.0.1"));
  EXPECT_TRUE(zr::IsNumericAddress("fe80::1%lo"));
  EXPECT_FALSE(zr::IsNumericAddress("localhost"));
  EXPECT_FALSE(zr::IsNumericAddress("1.2.3"));
  EXPECT_FALSE(zr::ResolveListener(65536).error.empty());
  EXPECT_FALSE(zr::ResolveHost("127.0.0.1", -1).error.empty());
  ZrNumericName name = zr::NumericName(Loopback(65535));
  EXPECT_EQ(name.host + " " + name.service, "127.0.0.1 65535");
  name = zr::NumericName(zr::ResolveHost("::ffff:10.0.0.1", 80).addresses.at(0));
  EXPECT_EQ(name.host + " " + name.service, "10.0.0.1 80") << "an IPv4 peer of an IPv6 socket";
}

}  // namespace
