#include "tests/support/scripted_peer.h"

#include <utility>

#include "platform/socket.h"

namespace zrtest {

std::string PeerConnection::ReadRequest() {
  constexpr std::string_view kLength = "content-length: ";
  std::size_t end = 0;
  while ((end = unread_.find("\r\n\r\n")) == std::string::npos) {
    if (!ReadMore()) return {};
  }
  std::string head = unread_.substr(0, end);
  for (char& c : head) c = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  const std::size_t at = head.find(kLength);
  return ReadBytes(end + 4 +
                   (at == std::string::npos ? 0 : std::stoul(head.substr(at + kLength.size()))));
}

std::string PeerConnection::ReadBytes(std::size_t count) {
  while (unread_.size() < count) {
    if (!ReadMore()) return {};
  }
  std::string bytes = unread_.substr(0, count);
  unread_.erase(0, count);
  return bytes;
}

bool PeerConnection::ReadMore() {
  const std::size_t before = unread_.size();
  return (unread_ += ReadSome()).size() > before;
}

ScriptedPeer::ScriptedPeer(Script script) : script_(std::move(script)) {
  for (const ZrSocketAddress& address : zr::ResolveHost("127.0.0.1", 0).addresses) {
    listener_ = zr::OpenListener(address, 64);
  }
  port_ = zr::LocalPort(listener_.Get());
  acceptor_ = std::thread([this] {
    std::vector<std::thread> running;
    while (!ended_) {
      if (zr::WaitReadable(listener_.Get(), std::chrono::milliseconds(20)) != ZrWaitStatus::kReady)
        continue;
      ZrAccepted accepted = zr::AcceptPeer(listener_.Get());
      if (accepted.status != ZrAcceptStatus::kAccepted) continue;
      running.emplace_back(
          [this, number = count_++, socket = std::move(accepted.socket)]() mutable {
            PeerConnection connection(std::move(socket));
            script_(number, connection);
          });
    }
    for (std::thread& one : running) one.join();
  });
}

ScriptedPeer::~ScriptedPeer() {
  ended_ = true;
  acceptor_.join();
}

}  // namespace zrtest
