#include "tests/support/scripted_peer.h"

#include <chrono>
#include <utility>

#include "host/zrnumber.h"
#include "platform/zrsocket.h"

namespace zrtest {
namespace {

using std::chrono::milliseconds;
constexpr milliseconds kLimit{20'000};
constexpr milliseconds kLook{20};

std::size_t DeclaredLength(std::string_view head) {
  constexpr std::string_view kField = "Content-Length: ";
  const std::size_t at = head.find(kField);
  if (at == std::string_view::npos) return 0;
  const std::string_view rest = head.substr(at + kField.size());
  return zr::ParseDigits(rest.substr(0, rest.find('\r'))).value_or(0);
}

}  // namespace

bool PeerConnection::ReadMore() {
  if (zr::WaitReadable(socket_.Get(), kLimit) != ZrWaitStatus::kReady) return false;
  char buffer[65536];
  const ZrIoResult result = zr::ReceiveBytes(socket_.Get(), buffer);
  unread_.append(buffer, result.count);
  return result.status == ZrIoStatus::kDone;
}

std::string PeerConnection::ReadRequest() {
  std::size_t end = 0;
  while ((end = unread_.find("\r\n\r\n")) == std::string::npos) {
    if (!ReadMore()) return {};
  }
  return ReadBytes(end + 4 + DeclaredLength(unread_.substr(0, end + 2)));
}

std::string PeerConnection::ReadBytes(std::size_t count) {
  while (unread_.size() < count) {
    if (!ReadMore()) return {};
  }
  std::string bytes = unread_.substr(0, count);
  unread_.erase(0, count);
  return bytes;
}

bool PeerConnection::Send(std::string_view bytes) {
  while (!bytes.empty()) {
    const ZrIoResult result = zr::SendBytes(socket_.Get(), bytes);
    bytes.remove_prefix(result.count);
    if (result.status == ZrIoStatus::kDone) continue;
    if (result.status != ZrIoStatus::kWouldBlock) return false;
    if (zr::WaitWritable(socket_.Get(), kLimit) != ZrWaitStatus::kReady) return false;
  }
  return true;
}

bool PeerConnection::WaitForEnd() {
  const auto deadline = std::chrono::steady_clock::now() + kLimit;
  while (ReadMore()) unread_.clear();
  return std::chrono::steady_clock::now() < deadline;
}

ScriptedPeer::ScriptedPeer(Script script) : script_(std::move(script)) {
  for (const ZrSocketAddress& address : zr::ResolveHost("127.0.0.1", 0).addresses) {
    listener_ = zr::OpenListener(address, 64);
  }
  port_ = zr::LocalPort(listener_.Get());
  acceptor_ = std::thread([this] {
    std::vector<std::thread> running;
    while (!ended_) {
      if (zr::WaitReadable(listener_.Get(), kLook) != ZrWaitStatus::kReady) continue;
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
