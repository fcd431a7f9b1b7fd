#pragma once
// Programs that answer requests: what is under the CGI prefix runs itself, PHP pages run in the
// client's interpreter. A run happens on a scheduler task of its own, so no server waits for it; on
// its own connection the next request waits until the answer was sent.

#include <memory>
#include <string>

#include "handlers/cgi_runs.h"
#include "handlers/pipe_exec.h"
#include "handlers/script_runner.h"
#include "platform/process.h"

namespace zr {

/// Runs the program once and closes all that belongs to the run. What was not taken stays in
/// `input`, what was written stands at the end of `output`. Answers yes, also for a program that
/// could not be started or met a limit; no only when nobody could hold its output. Blocks. Threads:
/// any, with buffers of their own.
bool RunCgi(const std::string& program, const ZrCgiVariables& variables, ZrStringBuf& input,
            ZrStringBuf& output, const ZrPipeExecSettings& settings = {});

}  // namespace zr

/// The programs of one application. Stop() comes before the clients and the scheduler go.
/// Threads: any.
class ZrCgi : public ZrScriptRunner {
 public:
  /// Reads the environment that every program inherits; the host must not change its own meanwhile.
  explicit ZrCgi(ZrRinvalScheduler2& scheduler, ZrPipeExecLimits limits = {},
                 std::size_t mostRuns = zr::DefaultCgiRuns());

  bool RunScript(ZrTransceiverClient& client, const std::shared_ptr<ZrXHeader>& request,
                 const std::string& path, ZrScriptKind kind) override;
  /// Ends all programs; their requests are answered with status 500. Returns within two seconds and
  /// leaves no child. Later scripts are answered the same way, without a run.
  void Stop() { runs_.Stop(); }

 private:
  // One run of a program.
  struct Job {
    ZrTransceiverClient& client;
    const std::shared_ptr<ZrXHeader> request;
    const std::string program;
    const ZrCgiVariables variables;
  };

  void Answer(const Job& job, const ZrWakeFlag& stop);
  void AnswerPieceByPiece(const Job& job, const ZrPipeExecSettings& settings);
  void Redirect(const Job& job, const std::string& address);

  const ZrEnvironment environment_ = ZrEnvironment::OfThisProcess();
  const ZrPipeExecLimits limits_;
  ZrRoomQueue roomQueue_;
  ZrCgiRuns runs_;  // last: it ends the runs before what they use goes
};
