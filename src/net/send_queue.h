#pragma once
// What is to be sent on one connection, oldest first: pieces of memory, and files whose bytes are
// read as the line takes them.
//
// Threads: any may add. Taking from the front is one writer's at a time, whom the connection's own
// lock makes the only one. The lock here is held for moments: additions at the end leave the front
// where it is, so the writer may send from there without it; nobody else removes from there.

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "base/memory_budget.h"
#include "base/string_buffer.h"
#include "net/byte_line.h"
#include "platform/file.h"
#include "platform/sync.h"

class ZrSendQueue {
 public:
  /// What is in memory counts there; without a budget it counts for nobody.
  explicit ZrSendQueue(std::shared_ptr<ZrMemoryBudget> budget = nullptr)
      : budget_(std::move(budget)) {}

  /// How much of a file is in memory at a time, at most.
  static constexpr std::size_t kFilePiece = 128 * 1024;

  /// Adds a piece; nothing for an empty one.
  void Add(ZrStringBuf bytes) ZR_EXCLUDES(lock_);
  /// The same at the front, by the writer: what it has begun to send.
  void AddInFront(ZrStringBuf bytes) ZR_EXCLUDES(lock_);
  /// Adds `length` bytes of a file from that offset.
  void AddFile(std::shared_ptr<const ZrFile> file, std::uint64_t offset, std::uint64_t length)
      ZR_EXCLUDES(lock_);
  /// Drops everything.
  void Clear() ZR_EXCLUDES(lock_);

  bool Pending() const noexcept { return Bytes() > 0; }
  /// Bytes that are still to be sent, those of files included.
  std::uint64_t Bytes() const noexcept { return bytes_.load(); }
  /// What counts in the budget, in bytes.
  std::uint64_t Held() const noexcept { return held_.load(std::memory_order_relaxed); }
  /// A copy of the oldest piece's bytes in memory.
  std::string FrontText() ZR_EXCLUDES(lock_);

  // For the writer.

  /// The oldest bytes, a piece of a file read in when that is what comes next; empty when nothing
  /// waits. Valid until Consume(). Nothing when a file is shorter than was said: all is dropped
  /// then, as what comes next would be taken for the rest of it.
  std::optional<std::string_view> Front() ZR_EXCLUDES(lock_);
  /// Drops bytes from the front, at most those that Front() shows.
  void Consume(std::size_t count) ZR_EXCLUDES(lock_);

  enum class Sent {
    kAll,      ///< nothing waits
    kSome,     ///< `count` bytes went; go on
    kRefused,  ///< the line is full; `count` bytes went before
    kDead,     ///< the line is broken
    kCut,      ///< a file was shorter than was said; all is dropped
  };
  /// Sends of the oldest piece what one call takes, a file's bytes without copying them.
  Sent SendFront(ZrByteLine& line, std::size_t& count) ZR_EXCLUDES(lock_);

 private:
  // Bytes in memory, behind them what is still to come of a file.
  struct Piece {
    ZrStringBuf bytes;
    std::shared_ptr<const ZrFile> file;
    std::uint64_t offset = 0;
    std::uint64_t remaining = 0;
    ZrMemoryShare share = ZrMemoryShare();  // as long as the piece lives, like its buffer
    bool Done() const { return bytes.Empty() && remaining == 0; }
  };

  void Push(Piece piece, bool inFront = false) ZR_EXCLUDES(lock_);
  Piece* FrontPiece() ZR_EXCLUDES(lock_);
  void ConsumeOfFile(std::uint64_t count) ZR_EXCLUDES(lock_);
  Piece TakeFront() ZR_REQUIRES(lock_);

  const std::shared_ptr<ZrMemoryBudget> budget_;
  ZrMutex lock_;
  std::deque<Piece> pieces_ ZR_GUARDED_BY(lock_);
  std::atomic<std::uint64_t> bytes_{0};
  std::atomic<std::uint64_t> held_{0};
};
