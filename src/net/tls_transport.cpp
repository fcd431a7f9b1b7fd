#include "net/tls_transport.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <new>
#include <utility>

#include "base/workbench.h"

namespace {

// The memory of one lot, which a thread that writes one answer after the other has at hand.
struct Spare {
  std::unique_ptr<char[]> memory;
};

}  // namespace

void ZrTlsTransport::TakeMemory() {
  if (kept_ != nullptr) return;
  if (ZrWorkbench* const workbench = ZrWorkbench::Current())
    kept_ = std::move(workbench->Of<Spare>().memory);
  if (kept_ == nullptr) kept_ = std::make_unique_for_overwrite<char[]>(kMostUnsent);
}

// An idle connection holds no memory here.
void ZrTlsTransport::ReleaseMemory() noexcept try {
  if (kept_ == nullptr) return;
  if (ZrWorkbench* const workbench = ZrWorkbench::Current())
    workbench->Of<Spare>().memory = std::move(kept_);
  kept_.reset();
} catch (const std::bad_alloc&) {
  kept_.reset();  // there is none for a place to keep it
}

void ZrTlsTransport::Keep(std::string_view bytes) {
  if (bytes.empty()) return;
  TakeMemory();
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
  // In the middle of a download it is needed again at once.
  if (!gathering_) ReleaseMemory();
}

ZrIoResult ZrTlsTransport::Die(int error) noexcept {
  state_ = State::kDead;
  error_ = error;
  return Failed();
}

ZrIoResult ZrTlsTransport::Write(std::string_view bytes) {
  if (Dead()) return Failed();
  const std::size_t before = Unsent();
  if (gathering_ && before + bytes.size() < kGather) {
    Keep(bytes);
    return {};
  }
  // The last record of a lot goes out from where OpenSSL has it.
  const std::array<std::string_view, 2> pieces = {Kept(), bytes};
  const ZrIoResult result = before == 0 ? line_.Send(bytes) : line_.SendPieces(pieces);
  if (result.status != ZrIoStatus::kDone && result.status != ZrIoStatus::kWouldBlock)
    return Die(result.error);
  sent_ += result.count;
  const std::size_t ofKept = std::min(result.count, before);
  bytes.remove_prefix(result.count - ofKept);
  if (ofKept > 0) Forget(ofKept);
  if (bytes.size() > kMostUnsent - Unsent()) return Die(0);
  Keep(bytes);
  return {};
}

ZrIoResult ZrTlsTransport::Flush() {
  if (Dead()) return Failed();
  while (Unsent() > 0) {
    const ZrIoResult result = line_.Send(Kept());
    if (result.status == ZrIoStatus::kWouldBlock) return result;
    if (result.status != ZrIoStatus::kDone) return Die(result.error);
    sent_ += result.count;
    Forget(result.count);
  }
  if (!gathering_) ReleaseMemory();
  return {};
}

ZrIoResult ZrTlsTransport::Read(std::span<char> target) {
  if (state_ == State::kDead) return Failed();
  if (state_ == State::kEnded) return {ZrIoStatus::kClosed, 0, 0};
  if (inputHeld_ || readsLeft_ == 0) return {ZrIoStatus::kWouldBlock, 0, 0};
  --readsLeft_;
  const ZrIoResult result = line_.Receive(target);
  switch (result.status) {
    case ZrIoStatus::kDone:
    case ZrIoStatus::kWouldBlock:
      return result;
    case ZrIoStatus::kClosed:
      if (result.error != 0) break;
      state_ = State::kEnded;
      return result;
    case ZrIoStatus::kFailed:
      break;
  }
  return Die(result.error);
}
