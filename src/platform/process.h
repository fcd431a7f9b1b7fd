#pragma once
// Child processes: started from an argument list, never through a shell, with an environment of
// their own; waited for by id, so that the host's own children are never touched. A child leads a
// process group of its own, starts with no signal blocked or ignored and holds no descriptor but
// its standard input, output and error, whatever the host has opened.

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "platform/descriptor.h"

class ZrProcessFamily;

/// The variables a child is given, as "NAME=value" texts in no particular order, each name once.
class ZrEnvironment {
 public:
  /// Without variables.
  ZrEnvironment() = default;
  /// A copy of what this process has now. The host must not change its environment meanwhile.
  static ZrEnvironment OfThisProcess();

  /// Enters the variable or replaces its value. The name holds no "=", neither text a NUL byte. No:
  /// the variable breaks this and is left out.
  bool Set(std::string_view name, std::string_view value);
  /// The value, valid until the next Set; nothing for an unknown name.
  std::optional<std::string_view> Get(std::string_view name) const;
  const std::vector<std::string>& entries() const { return entries_; }

 private:
  std::vector<std::string> entries_;
};

/// What to start and with what.
struct ZrProcessStart {
  /// A file name. Without a "/" it is looked up in the directories of the environment's PATH. The
  /// whole text is the name: blanks and quotes mean nothing. It is also the child's argument 0.
  std::string program;
  std::vector<std::string> arguments = {};     ///< those after argument 0
  const ZrEnvironment* environment = nullptr;  ///< required; read during the start only
  /// Descriptors of this process that become 0, 1 and 2; they stay open here. -1: the null device.
  int standardInput = -1;
  int standardOutput = -1;
  int standardError = -1;
};

/// One child: killed with its family and waited for when the object goes before the child ended.
/// The family are the processes of the child's group and all that stem from it while one of them
/// lives, in whatever group or session they are by now.
/// Threads: one at a time.
class ZrProcess {
 public:
  ZrProcess();
  ZrProcess(ZrProcess&& other) noexcept;
  ZrProcess& operator=(ZrProcess&& other) noexcept;
  ~ZrProcess();

  /// Starts the child. Returns no error when the program runs; otherwise the reason it does not
  /// (missing, not executable, environment too large, no more processes), and nothing is left.
  /// The object must not hold a child already.
  [[nodiscard]] std::error_code Start(const ZrProcessStart& start);

  bool IsHeld() const noexcept { return pid_ > 0; }
  /// A descriptor that is readable once the child has ended, for PollDescriptors; -1 where the
  /// system has none, the caller then asks HasEnded from time to time.
  int EndDescriptor() const noexcept { return end_.Get(); }
  /// Whether the child has ended. It stays unwaited-for, so its id and group stay its own.
  bool HasEnded() const noexcept;
  /// Waits for the child's end until the deadline (none: no limit); whether it has ended.
  bool WaitForEnd(std::optional<std::chrono::steady_clock::time_point> deadline) const;
  /// Asks the child and its family to end.
  void Terminate() noexcept;
  /// Ends them. Whoever left the family before (in a group of its own, and no parent in the family
  /// lives) is no longer found.
  void Kill() noexcept;
  /// Collects an ended child, waiting for the end if need be, and empties the object. The exit
  /// code, 128 plus the signal for one that a signal ended; nothing when the host collected it
  /// before us.
  std::optional<int> Collect() noexcept;
  /// Empties the object and leaves the child running; when the host has ended the system collects
  /// it.
  void Abandon() noexcept;

 private:
  void SignalGroup(int number) const noexcept;
  void SignalFamily(int number);

  int pid_ = -1;
  ZrDescriptor end_;
  std::unique_ptr<ZrProcessFamily> family_;  // as far as it was gathered
};

namespace zr {

/// Ends every other process of this user whose standard input, output or error is that pipe: the
/// last trace of one that left its family. Costs a look at every process of the machine.
void KillHoldersOf(int pipe);

/// A descriptor for this process's standard error; none when it is closed.
ZrDescriptor StandardErrorCopy();

/// The file that a program name means: a name with "/" unchanged, otherwise the first executable
/// regular file of that name in the directories of `path` (an empty entry is the current
/// directory). Nothing when there is none.
std::optional<std::string> FindProgram(std::string_view program, std::string_view path);

}  // namespace zr
