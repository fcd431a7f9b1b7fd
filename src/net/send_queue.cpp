#include "net/send_queue.h"

#include <algorithm>
#include <utility>

namespace {

// Smaller pieces are not counted: small answers do not touch the budget.
constexpr std::size_t kCounted = 4096;

}  // namespace

void ZrSendQueue::Push(Piece piece, bool inFront) {
  const std::uint64_t size = piece.bytes.Size() + piece.remaining;
  if (size == 0) return;
  if (piece.bytes.Size() >= kCounted && budget_) {
    piece.share = ZrMemoryShare(budget_);
    piece.share.Set(piece.bytes.Size());
  }
  ZrLock hold(lock_);
  held_ += piece.share.Bytes();
  pieces_.insert(inFront ? pieces_.begin() : pieces_.end(), std::move(piece));
  bytes_ += size;
}

void ZrSendQueue::Add(ZrStringBuf bytes) { Push({.bytes = std::move(bytes), .file = nullptr}); }

void ZrSendQueue::AddInFront(ZrStringBuf bytes) {
  Push({.bytes = std::move(bytes), .file = nullptr}, true);
}

void ZrSendQueue::AddFile(std::shared_ptr<const ZrFile> file, std::uint64_t offset,
                          std::uint64_t length) {
  Push({.bytes = {}, .file = std::move(file), .offset = offset, .remaining = length});
}

void ZrSendQueue::Clear() {
  std::deque<Piece> dropped;  // files and buffers are released without the lock
  ZrLock hold(lock_);
  dropped.swap(pieces_);
  bytes_ = 0;
  held_ = 0;
}

std::string ZrSendQueue::FrontText() {
  ZrLock hold(lock_);
  return pieces_.empty() ? std::string() : std::string(pieces_.front().bytes.Unread());
}

ZrSendQueue::Piece* ZrSendQueue::FrontPiece() {
  ZrLock hold(lock_);
  return pieces_.empty() ? nullptr : &pieces_.front();
}

std::optional<std::string_view> ZrSendQueue::Front() {
  Piece* const front = FrontPiece();
  if (front == nullptr) return std::string_view();
  if (front->bytes.Empty()) {
    const auto want =
        static_cast<std::size_t>(std::min<std::uint64_t>(front->remaining, kFilePiece));
    const std::size_t got =
        front->file->ReadAt(front->offset, front->bytes.Prepare(want)).value_or(0);
    if (got == 0) {
      Clear();
      return std::nullopt;
    }
    front->bytes.Commit(got);
    front->offset += got;
    front->remaining -= got;
  }
  return front->bytes.Unread();
}

void ZrSendQueue::Consume(std::size_t count) {
  Piece done;  // its file and buffer are released without the lock
  ZrLock hold(lock_);
  if (pieces_.empty()) return;
  Piece& front = pieces_.front();
  count = std::min(count, front.bytes.Size());
  front.bytes.Consume(count);
  bytes_ -= count;
  if (!front.Done()) return;
  done = TakeFront();
}

ZrSendQueue::Piece ZrSendQueue::TakeFront() {
  Piece front = std::move(pieces_.front());
  pieces_.pop_front();
  held_ -= front.share.Bytes();
  return front;
}

void ZrSendQueue::ConsumeOfFile(std::uint64_t count) {
  Piece done;
  ZrLock hold(lock_);
  Piece& front = pieces_.front();
  front.offset += count;
  front.remaining -= count;
  bytes_ -= count;
  if (!front.Done()) return;
  done = TakeFront();
}

ZrSendQueue::Sent ZrSendQueue::SendFront(ZrByteLine& line, std::size_t& count) {
  count = 0;
  const Piece* const front = FrontPiece();
  if (front == nullptr) return Sent::kAll;
  const std::string_view bytes = front->bytes.Unread();
  const auto ofFile =
      static_cast<std::size_t>(std::min<std::uint64_t>(front->remaining, kFilePiece));
  const ZrIoResult result =
      bytes.empty() ? line.SendFile(*front->file, front->offset, ofFile) : line.Send(bytes);
  switch (result.status) {
    case ZrIoStatus::kDone:
      break;
    case ZrIoStatus::kWouldBlock:
      return Sent::kRefused;
    case ZrIoStatus::kClosed:
    case ZrIoStatus::kFailed:
      return Sent::kDead;
  }
  count = result.count;
  if (!bytes.empty()) {
    Consume(count);
    return count == bytes.size() ? Sent::kSome : Sent::kRefused;
  }
  if (count == 0) {
    Clear();
    return Sent::kCut;
  }
  ConsumeOfFile(count);
  return Sent::kSome;
}
