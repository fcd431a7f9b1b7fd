#pragma once
// Runs one child process to its end: what a request carries goes to its standard input, what it
// writes on its standard output and standard error is collected. Input and output move at the same
// time on pipes that never block this side, so that no size of either can hold the run up; a child
// that writes for ever, never ends or leaves the pipe to a grandchild meets a limit.
// A run blocks its caller. Threads: one at a time per object, any number of objects.

#include <chrono>
#include <cstddef>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "base/memory_budget.h"
#include "base/string_buffer.h"
#include "handlers/program_input.h"
#include "handlers/program_output.h"
#include "http/peer_watch.h"
#include "platform/pipe.h"
#include "platform/process.h"

namespace zr {

/// The longest run; then the child's family is ended and what was read is the output.
inline constexpr std::chrono::milliseconds kCgiRunLimit = std::chrono::seconds(300);
/// The most bytes of output; a child that writes more is ended, and so many bytes are the output.
inline constexpr std::size_t kCgiOutputLimit = std::size_t{256} << 20;
/// How long the output of a grandchild is still read after the child's end. What the child itself
/// wrote is read in any case.
inline constexpr std::chrono::milliseconds kCgiDrainLimit{1000};
/// How long a run waits while all peers together hold more than their budget of memory; then the
/// newest run that waits is given up.
inline constexpr std::chrono::milliseconds kCgiRoomLimit = std::chrono::seconds(60);
/// How long a run in which nothing moves goes on for a peer that has ended its side, as one that
/// has gone altogether does: nothing else would tell before something is written to it.
inline constexpr std::chrono::milliseconds kCgiEndedPeerLimit = std::chrono::seconds(10);
/// The time between asking a child's family to end and ending it.
inline constexpr std::chrono::milliseconds kCgiTerminationGrace{500};

}  // namespace zr

/// The variables of one run, by name.
using ZrCgiVariables = std::map<std::string, std::string>;

/// What bounds a run.
struct ZrPipeExecLimits {
  std::chrono::milliseconds run = zr::kCgiRunLimit;
  std::size_t output = zr::kCgiOutputLimit;
  std::chrono::milliseconds drain = zr::kCgiDrainLimit;
  std::chrono::milliseconds terminationGrace = zr::kCgiTerminationGrace;
  std::chrono::milliseconds room = zr::kCgiRoomLimit;
  std::chrono::milliseconds endedPeer = zr::kCgiEndedPeerLimit;
};

/// What a run is given besides its program. The pointers are borrowed for the object's life.
struct ZrPipeExecSettings {
  ZrPipeExecLimits limits = {};
  /// The variables every child inherits; none: those this process has when the run starts.
  const ZrEnvironment* environment = nullptr;
  /// Once raised, the child's family is ended and the run returns within about the grace time.
  const ZrWakeFlag* stop = nullptr;
  /// Whom the run is for, if anybody: when the peer goes it ends in the same way.
  std::shared_ptr<ZrPeerWatch> peer = nullptr;
  /// What the output counts against, and where the run waits when that is exceeded; may be none.
  std::shared_ptr<ZrMemoryBudget> memory = nullptr;
  ZrRoomQueue* roomQueue = nullptr;
  /// What follows the input that a run is given; none: nothing. A program that reads no more has
  /// the rest dropped as it comes.
  ZrProgramSource* source = nullptr;
  /// The output is sent on as it comes: the run's limit is one of the time in which nothing moves,
  /// there is none of the bytes, and who waits for room does so for a peer that has limits of its
  /// own. What the child writes on its standard error goes to that of this process.
  bool streams = false;
};

/// How a run ended.
enum class ZrPipeExecEnd {
  kEnded,       ///< The child ended by itself; its exit code is not looked at.
  kCrashed,     ///< A signal that is not from here ended the child.
  kNotStarted,  ///< No such program, not executable, ...: nothing ran, the output is unchanged.
  /// It took too long, or nothing moved for so long, and it was ended with its family.
  kRunLimit,
  kOutputLimit,  ///< It wrote too much and was ended with its family.
  /// Its output could not be kept, or its input or output not be moved: it was ended with its
  /// family, and the output is lost.
  kLost,
  kNoInput,  ///< The rest of its input will not come, and it was ended with its family.
  kStopped,  ///< The flag was raised, or its peer has gone, and it was ended with its family.
};

/// Owns the two pipes and the child of one run.
class ZrWinPipeExec {
 public:
  /// Creates the pipes. The program is a file name, looked up on PATH when it holds no "/"; the
  /// whole text is the name. A failure is reported on the standard output, the child then runs
  /// without that pipe.
  explicit ZrWinPipeExec(std::string program, ZrPipeExecSettings settings = {});
  /// Ends and collects a child that still runs.
  ~ZrWinPipeExec();
  ZrWinPipeExec(const ZrWinPipeExec&) = delete;
  ZrWinPipeExec& operator=(const ZrWinPipeExec&) = delete;

  /// Starts the child with the inherited variables and these (which win), delivers `input` (what
  /// the child took is consumed), puts its output behind what `output` holds, and returns when the
  /// child has ended and been collected. A variable with a NUL byte is left out. At most one run
  /// per object.
  ZrPipeExecEnd Run(const ZrCgiVariables& variables, ZrStringBuf& input, ZrStringBuf& output);
  /// The same with an output that goes elsewhere; kLost when that took no more.
  ZrPipeExecEnd Run(const ZrCgiVariables& variables, ZrStringBuf& input, ZrProgramSink& output);

 private:
  bool Start(const ZrCgiVariables& variables);
  ZrPipeExecEnd RunTo(const ZrCgiVariables& variables, ZrStringBuf& input, ZrProgramSink& output,
                      ZrRoomQueue::Place& room);
  ZrPipeExecEnd Move(ZrStringBuf& input, ZrProgramSink& output, ZrRoomQueue::Place& room);
  std::optional<ZrPipeExecEnd> Deliver(ZrStringBuf& input);
  bool TakeInput(ZrStringBuf& input);
  std::optional<ZrPipeExecEnd> Collect(ZrProgramSink& output, std::size_t& room,
                                       std::size_t wanted);
  void EndFamily();

  ZrDescriptor stdinRead_;
  ZrDescriptor stdinWrite_;
  ZrDescriptor stdoutRead_;
  ZrDescriptor stdoutWrite_;
  ZrProcess process_;
  std::string program_;
  ZrPipeExecSettings settings_;
};
