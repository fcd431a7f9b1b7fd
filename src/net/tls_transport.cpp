#include "net/tls_transport.h"

#include <algorithm>
#include <cstring>

#include "platform/socket.h"

void ZrTlsTransport::Keep(std::string_view bytes) {
  if (bytes.empty()) return;
  if (kept_ == nullptr) kept_ = std::make_unique_for_overwrite<char[]>(kMostUnsent);
  if (end_ + bytes.size() > kMostUnsent) {
    std::memmove(kept_.get(), kept_.get() + begin_, Unsent());
    end_ -= std::exchange(begin_, 0);
  }
  std::memcpy(kept_.get() + end_, bytes.data(), bytes.size());
  end_ += bytes.size();
}

void ZrTlsTransport::Forget(std::size_t bytes) noexcept {
  begin_ += bytes;
  if (begin_ != end_) return;
  begin_ = end_ = 0;
  // An idle connection holds no memory here; one in the middle of a download keeps its own.
  if (!gathering_) kept_.reset();
}

ZrIoResult ZrTlsTransport::Write(std::string_view bytes) {
  const std::size_t before = Unsent();
  if (gathering_ && before + bytes.size() < kGather) {
    Keep(bytes);
    return {};
  }
  // The last record of a lot goes out from where OpenSSL has it.
  const std::array<std::string_view, 2> pieces = {Kept(), bytes};
  ZrIoResult result = before == 0 ? zr::SendBytes(socket_, bytes) : zr::SendPieces(socket_, pieces);
  if (result.status != ZrIoStatus::kDone && result.status != ZrIoStatus::kWouldBlock) return result;
  sent_ += result.count;
  const std::size_t ofKept = std::min(result.count, before);
  bytes.remove_prefix(result.count - ofKept);
  if (ofKept > 0) Forget(ofKept);
  if (bytes.size() > kMostUnsent - Unsent()) return {ZrIoStatus::kFailed, 0, 0};
  Keep(bytes);
  return {};
}

ZrIoResult ZrTlsTransport::Flush() {
  while (Unsent() > 0) {
    const ZrIoResult result = zr::SendBytes(socket_, Kept());
    if (result.status != ZrIoStatus::kDone) return result;
    sent_ += result.count;
    Forget(result.count);
  }
  if (!gathering_) kept_.reset();
  return {};
}

ZrIoResult ZrTlsTransport::Read(std::span<char> target) {
  return zr::ReceiveBytes(socket_, target);
}
