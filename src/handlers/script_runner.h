#pragma once
// How the file routing reaches the programs that answer requests. The routing stands beside them
// and is given one runner.

#include <memory>
#include <string>

#include "transceiver/fwd.h"

class ZrTransceiverClient;

/// What a script file is started with.
enum class ZrScriptKind {
  kProgram,  ///< the file itself
  kPhp,      ///< the client's PHP interpreter
};

/// Called on the servers' threads, several at once, with no lock held.
class ZrScriptRunner {
 public:
  virtual ~ZrScriptRunner() = default;

  /// Runs the script that `path` names beneath the client's start directory (bytes as they came in
  /// the request, without the leading "/") and has its output answered. Answers yes, also while it
  /// still runs; no, and nothing is done, when the file is not there or the method is not one for
  /// scripts. In standard semantics the path may go on behind the script's name.
  virtual bool RunScript(ZrTransceiverClient& client, const std::shared_ptr<ZrXHeader>& request,
                         const std::string& path, ZrScriptKind kind) = 0;
};
