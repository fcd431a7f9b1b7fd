#pragma once
// A line in memory that refuses, cuts or fails as told. Two joined ones are a connection: what one
// sends arrives at the other. Like the system it tells a failure once: behind it sends fail with
// EPIPE, and receives see an end.

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <string>

#include "net/byte_line.h"

namespace zrtest {

class ScriptedLine : public ZrByteLine {
 public:
  static constexpr std::size_t kUnlimited = std::numeric_limits<std::size_t>::max();

  std::string input;               // arrived and not yet received
  bool ended = false;              // the peer ended its side behind that
  std::string output;              // sent, when it is not joined
  std::size_t room = kUnlimited;   // how much more sends take before they are refused
  std::size_t piece = kUnlimited;  // the most that one call moves
  int failSendAt = 0;              // the call, counted from 1, that fails; 0: none
  int failReceiveAt = 0;
  int error = ECONNRESET;  // ... with that
  int sends = 0;           // calls so far
  int receives = 0;
  bool broken = false;

  static void Join(ScriptedLine& one, ScriptedLine& other) {
    one.peer_ = &other;
    other.peer_ = &one;
  }
  ScriptedLine* Peer() const { return peer_; }

  ZrIoResult Send(std::string_view bytes) override {
    if (++sends == failSendAt) return Break();
    if (broken) return {ZrIoStatus::kClosed, 0, EPIPE};
    const std::size_t count = std::min({bytes.size(), room, piece});
    if (count == 0) return {ZrIoStatus::kWouldBlock, 0, EAGAIN};
    if (room != kUnlimited) room -= count;
    (peer_ != nullptr ? peer_->input : output) += bytes.substr(0, count);
    return {ZrIoStatus::kDone, count, 0};
  }
  ZrIoResult SendPieces(std::span<const std::string_view> pieces) override {
    std::string bytes;
    for (const std::string_view one : pieces) bytes += one;
    return Send(bytes);
  }
  ZrIoResult SendFile(const ZrFile& file, std::uint64_t offset, std::size_t length) override {
    std::string bytes(length, '\0');
    bytes.resize(file.ReadAt(offset, bytes).value_or(0));
    return bytes.empty() ? ZrIoResult{} : Send(bytes);
  }
  ZrIoResult Receive(std::span<char> target) override {
    if (++receives == failReceiveAt) return Break();
    if (broken) return {ZrIoStatus::kClosed, 0, 0};
    const std::size_t count = std::min({target.size(), input.size(), piece});
    if (count == 0) {
      return ended ? ZrIoResult{ZrIoStatus::kClosed, 0, 0}
                   : ZrIoResult{ZrIoStatus::kWouldBlock, 0, EAGAIN};
    }
    std::memcpy(target.data(), input.data(), count);
    input.erase(0, count);
    return {ZrIoStatus::kDone, count, 0};
  }
  ZrWaitStatus WaitReadable(std::chrono::milliseconds) override {
    return input.empty() && !ended && !broken ? ZrWaitStatus::kTimeout : ZrWaitStatus::kReady;
  }
  ZrWaitStatus WaitWritable(std::chrono::milliseconds) override {
    return room == 0 ? ZrWaitStatus::kTimeout : ZrWaitStatus::kReady;
  }

 private:
  ZrIoResult Break() {
    broken = true;
    return {ZrIoStatus::kClosed, 0, error};
  }

  ScriptedLine* peer_ = nullptr;
};

}  // namespace zrtest
