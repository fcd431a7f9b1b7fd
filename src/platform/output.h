#pragma once
// The roads by which text leaves the process.

#include <cstddef>
#include <string>
#include <string_view>

#include "platform/descriptor.h"

namespace zr {

/// Writes the text as it is to standard output and returns when all of it was taken, however long
/// that lasts: for tools whose result it is. EINTR and a stream that would not wait are waited out;
/// SIGPIPE does what the process has it do. Returns 0 or the system's error number.
[[nodiscard]] int WriteOutput(std::string_view text) noexcept;
/// The same for standard error.
int WriteErrorText(std::string_view text) noexcept;

}  // namespace zr

/// Where lines go: a standard stream or a log file. Writing never waits for a reader: pipes and
/// terminals are opened a second time for that, since a description that this process shares with
/// others is not to change its ways. Where the system refuses that, pieces are written that a pipe
/// takes at once; a terminal may then hold the writing thread up, which MayBlock() tells.
/// No SIGPIPE is raised. Threads: one at a time.
class ZrLineSink {
 public:
  enum class Status {
    kTaken,    ///< All of it.
    kBlocked,  ///< Nobody reads: wait until WaitDescriptor() is writable.
    kLost,     ///< The rest cannot be written: the reader is gone, or there is no such stream.
    kFull,     ///< The rest cannot be written: the disk or a limit of the file is full.
  };
  struct Result {
    Status status = Status::kTaken;
    std::size_t count = 0;  ///< Bytes that were taken.
    int error = 0;          ///< The system's error number of kLost and kFull.
  };

  /// A sink that loses everything.
  ZrLineSink() = default;
  static ZrLineSink StandardOutput() { return ZrLineSink(1); }
  static ZrLineSink StandardError() { return ZrLineSink(2); }
  /// Opens or makes a file (mode 0640) that is added to. Lines to a FIFO without a reader wait in
  /// it. Returns 0 or the system's error number; after an error the sink is as it was.
  [[nodiscard]] static int OpenFile(const std::string& path, ZrLineSink& sink);

  Result Write(std::string_view bytes) noexcept;
  /// After kBlocked, until the next call.
  int WaitDescriptor() const noexcept { return twin_.IsOpen() ? twin_.Get() : standard_; }
  /// Whether a write of this process may hold its thread up for ever. The code of such a thread
  /// stays loaded.
  static bool MayBlock() noexcept;

 private:
  explicit ZrLineSink(int standard) : standard_(standard) {}
  enum class Way { kWrite, kSend, kPieces };
  Way Prepare() noexcept;

  int standard_ = -1;  // the stream's number; none for a file
  ZrDescriptor twin_;  // a file; of a stream, what it was opened as until it has taken all
};
