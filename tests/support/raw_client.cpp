#include "tests/support/raw_client.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <utility>

namespace zrtest {

RawClient::RawClient(int port, int receiveWindow) {
  descriptor_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (receiveWindow > 0) {
    setsockopt(descriptor_, SOL_SOCKET, SO_RCVBUF, &receiveWindow, sizeof receiveWindow);
  }
  sockaddr_in peer{};
  peer.sin_family = AF_INET;
  peer.sin_port = htons(static_cast<std::uint16_t>(port));
  peer.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(descriptor_, reinterpret_cast<sockaddr*>(&peer), sizeof peer) != 0) {
    close(descriptor_);
    descriptor_ = -1;
  }
}

RawClient::~RawClient() {
  if (descriptor_ >= 0) {
    close(descriptor_);
  }
}

RawClient::RawClient(RawClient&& other) noexcept
    : descriptor_(std::exchange(other.descriptor_, -1)), closed_(other.closed_) {}

bool RawClient::Send(std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t sent = send(descriptor_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent <= 0) {
      return false;
    }
    bytes.remove_prefix(static_cast<std::size_t>(sent));
  }
  return true;
}

void RawClient::FinishSending() { shutdown(descriptor_, SHUT_WR); }

std::string RawClient::ReadSome(std::size_t capacity, std::chrono::seconds limit) {
  pollfd readable{descriptor_, POLLIN, 0};
  if (poll(&readable, 1, static_cast<int>(limit.count() * 1000)) != 1) {
    return {};
  }
  std::string bytes(capacity, '\0');
  const ssize_t count = recv(descriptor_, bytes.data(), bytes.size(), 0);
  closed_ = count == 0;
  bytes.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
  return bytes;
}

std::string RawClient::ReadUntil(std::string_view end) {
  std::string all;
  while (all.find(end) == std::string::npos) {
    const std::string more = ReadSome();
    if (more.empty()) {
      break;
    }
    all += more;
  }
  return all;
}

std::string RawClient::ReadToEnd(bool* ended) {
  std::string all;
  for (std::string more = ReadSome(); !more.empty(); more = ReadSome()) {
    all += more;
  }
  if (ended != nullptr) {
    *ended = closed_;
  }
  return all;
}

void RawClient::Reset() {
  const linger now{1, 0};
  setsockopt(descriptor_, SOL_SOCKET, SO_LINGER, &now, sizeof now);
  close(std::exchange(descriptor_, -1));
}

}  // namespace zrtest
