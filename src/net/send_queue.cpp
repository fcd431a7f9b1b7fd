#include "net/send_queue.h"

#include <algorithm>
#include <array>
#include <optional>
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
  decltype(pieces_) dropped;  // files and buffers are released without the lock
  ZrLock hold(lock_);
  dropped.swap(pieces_);
  bytes_ = 0;
  held_ = 0;
}

std::string ZrSendQueue::FrontText() {
  ZrLock hold(lock_);
  return pieces_.empty() ? std::string() : std::string(pieces_.front().bytes.Unread());
}

const ZrSendQueue::Piece* ZrSendQueue::FrontPiece() {
  ZrLock hold(lock_);
  return pieces_.empty() ? nullptr : &pieces_.front();
}

ZrSendQueue::Oldest ZrSendQueue::Front(std::span<char> space, Files files) {
  const Piece* const front = FrontPiece();
  if (front == nullptr) return {};
  if (front->bytes.Empty()) return FrontOfFile(*front, space, files);
  return {Oldest::Kind::kBytes, front->bytes.Unread()};
}

ZrSendQueue::Oldest ZrSendQueue::FrontOfFile(const Piece& front, std::span<char> space,
                                             Files files) {
  space =
      space.first(static_cast<std::size_t>(std::min<std::uint64_t>(front.remaining, space.size())));
  const std::optional<std::size_t> got = files == Files::kAtHand
                                             ? front.file->ReadAtHand(front.offset, space)
                                             : front.file->ReadAt(front.offset, space);
  if (!got && files == Files::kAtHand) return {Oldest::Kind::kNotAtHand};
  if (got.value_or(0) > 0) return {Oldest::Kind::kBytes, {space.data(), *got}};
  Clear();
  return {Oldest::Kind::kCut};
}

void ZrSendQueue::Consume(std::size_t count) {
  Piece done;  // its file and buffer are released without the lock
  ZrLock hold(lock_);
  if (pieces_.empty()) return;
  Piece& front = pieces_.front();
  if (front.bytes.Empty()) {
    count = static_cast<std::size_t>(std::min<std::uint64_t>(count, front.remaining));
    front.offset += count;
    front.remaining -= count;
  } else {
    count = std::min(count, front.bytes.Size());
    front.bytes.Consume(count);
  }
  bytes_ -= count;
  if (!front.Done()) return;
  done = std::move(front);
  pieces_.pop_front();
  held_ -= done.share.Bytes();
}

ZrSendQueue::Sent ZrSendQueue::SendFront(ZrByteLine& line, std::size_t& count, Files files) {
  count = 0;
  const Piece* const front = FrontPiece();
  if (front == nullptr) return Sent::kAll;
  if (!front->bytes.Empty()) return SendBytes(line, front->bytes.Unread(), count);
  if (files == Files::kMayWait) return SendOfFile(line, *front, count);
  // No call of the system sends only those bytes of a file that it need not wait for.
  std::array<char, kCopied> space;
  const Oldest oldest = FrontOfFile(*front, space, files);
  switch (oldest.kind) {
    case Oldest::Kind::kBytes:
      return SendBytes(line, oldest.bytes, count);
    case Oldest::Kind::kNotAtHand:
      return Sent::kNotAtHand;
    case Oldest::Kind::kNone:
    case Oldest::Kind::kCut:
      break;
  }
  return Sent::kCut;
}

ZrSendQueue::Sent ZrSendQueue::SendBytes(ZrByteLine& line, std::string_view bytes,
                                         std::size_t& count) {
  return Result(line.Send(bytes), bytes.size(), count);
}

// The line may have taken less than was asked for because the file is shorter: the next call tells.
ZrSendQueue::Sent ZrSendQueue::SendOfFile(ZrByteLine& line, const Piece& front,
                                          std::size_t& count) {
  const auto length = static_cast<std::size_t>(std::min(front.remaining, kFilePiece));
  const ZrIoResult result = line.SendFile(*front.file, front.offset, length);
  if (result.status != ZrIoStatus::kDone || result.count > 0) return Result(result, length, count);
  Clear();
  return Sent::kCut;
}

ZrSendQueue::Sent ZrSendQueue::Result(const ZrIoResult& result, std::size_t asked,
                                      std::size_t& count) {
  switch (result.status) {
    case ZrIoStatus::kDone:
      count = result.count;
      Consume(count);
      return count < asked ? Sent::kRefused : Sent::kSome;
    case ZrIoStatus::kWouldBlock:
      return Sent::kRefused;
    case ZrIoStatus::kClosed:
    case ZrIoStatus::kFailed:
      break;
  }
  return Sent::kDead;
}
