// Socket calls whose failures matter: broken peers without SIGPIPE, limits, descriptors that ran
// out.

#include "platform/socket.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

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
  ZrDescriptor listener;
  ZrDescriptor client;
  ZrDescriptor server;
};

TEST(Socket, WritingToAGonePeerIsAResultAndNoSignal) {
  ASSERT_NE(::signal(SIGPIPE, SIG_DFL), SIG_ERR);  // a raised signal would end this program
  Connected both;
  const linger now{1, 0};  // the end of the client is a reset
  ::setsockopt(both.client.Get(), SOL_SOCKET, SO_LINGER, &now, sizeof now);
  both.client.Close();
  EXPECT_EQ(zr::WaitReadable(both.server.Get(), 10s), ZrWaitStatus::kReady);
  char byte = 0;
  EXPECT_EQ(zr::ReceiveBytes(both.server.Get(), {&byte, 1}).error, ECONNRESET);
  const zrtest::TemporaryFolder folder;
  const auto file = ZrFile::Open(folder.Write("file", "bytes"));
  const std::string_view pieces[] = {"a", "b"};
  EXPECT_EQ(zr::SendBytes(both.server.Get(), "x").status, ZrIoStatus::kClosed);
  EXPECT_EQ(zr::SendPieces(both.server.Get(), pieces).status, ZrIoStatus::kClosed);
  EXPECT_EQ(zr::SendFile(both.server.Get(), *file, 0, 5).status, ZrIoStatus::kClosed);
  sigset_t mask;
  ASSERT_EQ(::pthread_sigmask(SIG_BLOCK, nullptr, &mask), 0);
  EXPECT_EQ(::sigismember(&mask, SIGPIPE), 0) << "the thread's mask is put back";
}

TEST(Socket, UrgentReadinessWithoutUrgentDataIsNoFailure) {
  Connected both;
  EXPECT_EQ(zr::DropUrgentByte(both.server.Get()).status, ZrIoStatus::kWouldBlock);
  ASSERT_EQ(::send(both.client.Get(), "!", 1, MSG_OOB), 1);
  ASSERT_EQ(zr::WaitReadable(both.server.Get(), 10s), ZrWaitStatus::kReady);
  EXPECT_EQ(zr::DropUrgentByte(both.server.Get()).count, 1U);
  EXPECT_EQ(zr::DropUrgentByte(both.server.Get()).status, ZrIoStatus::kWouldBlock);
}

TEST(Socket, ConnectingIsBounded) {
  int error = 0;
  // A listener that accepts nobody answers until its queue is full, and then leaves peers waiting.
  const ZrDescriptor full = zr::OpenListener(Loopback(0), 0);
  std::vector<ZrDescriptor> held;
  do {
    held.push_back(zr::ConnectTo(Loopback(zr::LocalPort(full.Get())), 50ms, &error));
  } while (held.back().IsOpen() && held.size() < 100);
  EXPECT_EQ(error, ETIMEDOUT);
}

}  // namespace
