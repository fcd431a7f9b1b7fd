#pragma once
// Pipes to and from a child process, a flag that can be waited for, and the wait for several of
// them at once. Everything made here closes in a child that another thread starts at the same
// moment.

#include <atomic>
#include <chrono>
#include <cstddef>
#include <optional>
#include <span>
#include <string_view>
#include <system_error>

#include "platform/descriptor.h"

/// A flag that many threads can wait for through its descriptor. Once raised it stays raised,
/// unless its only waiter takes it back. Threads: any.
class ZrWakeFlag {
 public:
  /// Throws std::system_error when the system gives no descriptor.
  ZrWakeFlag();
  void Raise() noexcept;
  void Lower() noexcept;
  bool IsRaised() const noexcept { return raised_; }
  /// Readable once the flag is raised. Valid as long as the flag.
  int Descriptor() const noexcept { return event_.Get(); }

 private:
  ZrDescriptor event_;
  std::atomic<bool> raised_ = false;
};

namespace zr {

/// Both ends of a pipe; neither is one of the descriptors 0 to 2, also when those are free.
struct Pipe {
  ZrDescriptor read;
  ZrDescriptor write;
};

/// Creates a pipe whose ends both block. On failure `pipe` is empty and the system's error (mostly:
/// too many descriptors) is returned.
[[nodiscard]] std::error_code MakePipe(Pipe& pipe);
/// Makes one end never block: the one this process keeps. The other end stays as it is.
[[nodiscard]] std::error_code SetNonBlocking(int descriptor);

/// What one read or write on a pipe came to.
enum class PipeResult {
  kMoved,    ///< `count` bytes, at least one, were moved.
  kBlocked,  ///< Nothing can be moved now; wait with PollDescriptors and try again.
  kClosed,   ///< The other side has closed: nothing will ever be moved again.
  kFailed,   ///< The system failed: what the pipe held, or should have got, is lost.
};
struct PipeTransfer {
  PipeResult result = PipeResult::kBlocked;
  std::size_t count = 0;
};

/// Reads up to `into.size()` bytes; an interruption is retried.
[[nodiscard]] PipeTransfer ReadPipe(int descriptor, std::span<char> into);
/// The bytes that can be read at once; 0 also for no pipe.
[[nodiscard]] std::size_t PendingBytes(int descriptor);
/// Whether any process holds the end of the pipe that is written to, and still does after that
/// time. No for no pipe.
[[nodiscard]] bool HasWriter(int readEnd, std::chrono::milliseconds patience);
/// Writes as much of `bytes` as the pipe takes; an interruption is retried. A reader that has gone
/// gives kClosed and raises no signal in this process, whatever its dispositions are.
[[nodiscard]] PipeTransfer WritePipe(int descriptor, std::string_view bytes);

/// One descriptor to wait for. A negative descriptor is never ready.
struct PollItem {
  int descriptor = -1;
  bool forWriting = false;  ///< false: wait until it can be read
  bool ready = false;       ///< set by PollDescriptors; a hang-up or failure counts as ready
};

/// Waits until an item is ready or the deadline has passed (none: no time limit) and fills every
/// `ready`. No: the deadline passed with nothing ready. An interruption is retried.
bool PollDescriptors(std::span<PollItem> items,
                     std::optional<std::chrono::steady_clock::time_point> deadline);

}  // namespace zr
