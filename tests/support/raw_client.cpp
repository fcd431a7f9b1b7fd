#include "tests/support/raw_client.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>

#include "platform/socket.h"

namespace zrtest {

RawClient::RawClient(int port, int receiveWindow)
    : socket_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  if (receiveWindow > 0) {
    setsockopt(socket_.Get(), SOL_SOCKET, SO_RCVBUF, &receiveWindow, sizeof receiveWindow);
  }
  sockaddr_in peer{};
  peer.sin_family = AF_INET;
  peer.sin_port = htons(static_cast<std::uint16_t>(port));
  peer.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(socket_.Get(), reinterpret_cast<sockaddr*>(&peer), sizeof peer) != 0) {
    socket_.Close();
  }
}

int RawClient::LocalPort() const { return zr::LocalPort(socket_.Get()); }

bool RawClient::Send(std::string_view bytes, std::chrono::milliseconds limit) {
  while (!bytes.empty()) {
    const ZrIoResult result = zr::SendBytes(socket_.Get(), bytes);
    bytes.remove_prefix(result.count);
    if (result.status == ZrIoStatus::kDone) continue;
    if (result.status != ZrIoStatus::kWouldBlock) return false;
    if (zr::WaitWritable(socket_.Get(), limit) != ZrWaitStatus::kReady) return false;
  }
  return true;
}

void RawClient::FinishSending() { zr::ShutdownSend(socket_.Get()); }

std::string RawClient::ReadSome(std::size_t capacity, std::chrono::milliseconds limit) {
  if (zr::WaitReadable(socket_.Get(), limit) != ZrWaitStatus::kReady) return {};
  // A buffer as large as all that is still to come would be cleared for each piece of it.
  std::string bytes(std::min(capacity, std::size_t{64 * 1024}), '\0');
  const ZrIoResult result = zr::ReceiveBytes(socket_.Get(), bytes);
  ended_ = result.status == ZrIoStatus::kClosed;
  closed_ = ended_ && result.error == 0;
  bytes.resize(result.count);
  return bytes;
}

std::string RawClient::ReadUntil(std::string_view end) {
  std::string all;
  while (all.find(end) == std::string::npos) {
    const std::string more = ReadSome();
    if (more.empty()) break;
    all += more;
  }
  return all;
}

std::string RawClient::ReadToEnd(bool* ended, std::chrono::milliseconds limit) {
  std::string all;
  for (std::string more; !(more = ReadSome(65536, limit)).empty();) all += more;
  if (ended != nullptr) *ended = closed_;
  return all;
}

void RawClient::Reset() {
  const linger now{1, 0};
  setsockopt(socket_.Get(), SOL_SOCKET, SO_LINGER, &now, sizeof now);
  socket_.Close();
}

}  // namespace zrtest
