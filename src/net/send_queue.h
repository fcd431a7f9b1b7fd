#pragma once
// What is to be sent on one connection, oldest first: pieces of memory, and files whose bytes are
// read as the line takes them, into memory of the writer's. Nothing of a file is kept here.
//
// Threads: any may add. Taking from the front is one writer's at a time, whom the connection's own
// lock makes the only one. The lock here is held for moments: additions at the end leave the front
// where it is, so the writer may send from there without it; nobody else removes from there.

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include "base/memory_budget.h"
#include "base/string_buffer.h"
#include "base/workbench.h"
#include "net/byte_line.h"
#include "platform/file.h"
#include "platform/sync.h"

class ZrSendQueue {
 public:
  /// What is in memory counts there; without a budget it counts for nobody.
  explicit ZrSendQueue(std::shared_ptr<ZrMemoryBudget> budget = nullptr)
      : budget_(std::move(budget)) {}

  /// What one call sends of a file that may be waited for, at most, in bytes.
  static constexpr std::uint64_t kFilePiece = std::uint64_t{128} * 1024;
  /// Which bytes of a file a writer takes.
  enum class Files {
    kMayWait,  ///< Those that come next; it waits for the disk where they are not in memory.
    kAtHand,   ///< Only those that the system has in memory.
  };

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
  /// A copy of the oldest piece's bytes; nothing of a file.
  std::string FrontText() ZR_EXCLUDES(lock_);

  // For the writer.

  struct Oldest {
    enum class Kind {
      kBytes,      ///< these
      kNone,       ///< nothing waits
      kNotAtHand,  ///< those of a file, which would have to be waited for
      kCut,        ///< a file is shorter than was said: all is dropped, as what comes next would be
                   ///< taken for the rest of it
    };
    Kind kind = Kind::kNone;
    std::string_view bytes = {};
  };
  /// The oldest bytes, those of a file read into `space` (not empty). Valid until Consume().
  Oldest Front(std::span<char> space, Files files) ZR_EXCLUDES(lock_);
  /// Drops bytes from the front, at most those of its oldest piece.
  void Consume(std::size_t count) ZR_EXCLUDES(lock_);

  enum class Sent {
    kAll,        ///< nothing waits
    kSome,       ///< `count` bytes went; go on
    kRefused,    ///< the line took less than it was given, `count` bytes: wait for its room
    kDead,       ///< the line is broken
    kNotAtHand,  ///< as for Oldest
    kCut,        ///< likewise
  };
  /// Sends of the oldest piece what one call takes, a file's bytes without copying them where they
  /// may be waited for.
  Sent SendFront(ZrByteLine& line, std::size_t& count, Files files = Files::kMayWait)
      ZR_EXCLUDES(lock_);

 private:
  // Bytes in memory, or of a file.
  struct Piece {
    ZrStringBuf bytes;
    std::shared_ptr<const ZrFile> file;
    std::uint64_t offset = 0;
    std::uint64_t remaining = 0;
    ZrMemoryShare share = ZrMemoryShare();  // as long as the piece lives, like its buffer
    bool Done() const { return bytes.Empty() && remaining == 0; }
  };
  // What one call sends of a file that is not waited for, as it is copied on the way.
  static constexpr std::size_t kCopied = std::size_t{64} * 1024;

  void Push(Piece piece, bool inFront = false) ZR_EXCLUDES(lock_);
  const Piece* FrontPiece() ZR_EXCLUDES(lock_);
  Oldest FrontOfFile(const Piece& front, std::span<char> space, Files files) ZR_EXCLUDES(lock_);
  Sent SendBytes(ZrByteLine& line, std::string_view bytes, std::size_t& count) ZR_EXCLUDES(lock_);
  Sent SendOfFile(ZrByteLine& line, const Piece& front, std::size_t& count) ZR_EXCLUDES(lock_);
  Sent Result(const ZrIoResult& result, std::size_t asked, std::size_t& count) ZR_EXCLUDES(lock_);

  const std::shared_ptr<ZrMemoryBudget> budget_;
  ZrMutex lock_;
  std::deque<Piece, ZrWorkbenchAllocator<Piece>> pieces_ ZR_GUARDED_BY(lock_);
  std::atomic<std::uint64_t> bytes_{0};
  std::atomic<std::uint64_t> held_{0};
};
