#include "handlers/cgi.h"

#include <utility>

#include "base/path.h"
#include "handlers/cgi_variables.h"
#include "handlers/request_handler.h"
#include "http/message_head.h"
#include "http/response_head.h"
#include "platform/file.h"
#include "platform/filesystem.h"

namespace zr {

bool RunCgi(const std::string& program, const ZrCgiVariables& variables, ZrStringBuf& input,
            ZrStringBuf& output, const ZrPipeExecSettings& settings) {
  return ZrWinPipeExec(program, settings).Run(variables, input, output) != ZrPipeExecEnd::kNoRoom;
}

}  // namespace zr

namespace {

std::string_view MethodName(ZrMethod method) {
  switch (method) {
    case ZrMethod::kGet:
      return "GET";
    case ZrMethod::kPost:
      return "POST";
    case ZrMethod::kHead:
      return "HEAD";
    case ZrMethod::kPut:
      return "PUT";
    case ZrMethod::kPatch:
      return "PATCH";
    case ZrMethod::kDelete:
      return "DELETE";
    case ZrMethod::kOptions:
      return "OPTIONS";
  }
  return "GET";
}

struct Script {
  const std::string& path;  // as it was asked for
  const std::string& file;
};

void AddStandardVariables(const ZrXHeader& request, std::string root, const Script& script,
                          ZrCgiVariables& variables) {
  while (root.size() > 1 && root.ends_with('/')) root.pop_back();
  const auto words = request.headers[zr::kFirstLine];
  const auto& peer = request.PeerRecord().info;
  const std::string name = "/" + script.path;
  const std::string serverAddress = peer.Get("localaddress");
  const std::string serverPort = peer.Get("localport");
  const std::string remoteAddress = peer.Get("remoteaddress");
  const std::string remotePort = peer.Get("remoteport");
  zr::ProgramRequest facts{.method = MethodName(request.method),
                           .protocol = request.oldVersion ? "HTTP/1.0" : "HTTP/1.1",
                           .target = words.size() >= 2 ? words[1] : std::string_view(),
                           .query = request.query,
                           .scriptName = name,
                           .extraPath = {},
                           .documentRoot = root,
                           .scriptFile = script.file,
                           .secure = request.ProtocolKind() == zr::kProtocolHttps,
                           .serverAddress = serverAddress,
                           .serverPort = serverPort,
                           .remoteAddress = remoteAddress,
                           .remotePort = remotePort,
                           .fields = &request.headers};
  if (request.body && !request.body->Empty()) facts.bodyBytes = request.body->Size();
  zr::BuildStandardVariables(facts, variables);
}

}  // namespace

ZrCgi::ZrCgi(ZrRinvalScheduler2& scheduler, ZrPipeExecLimits limits, std::size_t mostRuns)
    : limits_(limits), runs_(scheduler, mostRuns) {}

bool ZrCgi::RunScript(ZrTransceiverClient& client, const std::shared_ptr<ZrXHeader>& request,
                      const std::string& path, ZrScriptKind kind) {
  const std::string directory = zr::NormalizeDirectoryPath(client.startDirectory);
  if (!ZrFile::ExistsBeneath(directory, path)) return false;
  // Programs change their working directory: the path must hold from everywhere.
  const std::string script = zr::AbsolutePath(zr::SystemDirectory(directory) + path);
  ZrCgiVariables variables = {{"REDIRECT_STATUS", "CGI"}, {"SCRIPT_FILENAME", script}};
  if (request->semantics->IsStandard()) {
    variables.erase("SCRIPT_FILENAME");
    AddStandardVariables(*request, zr::AbsolutePath(zr::SystemDirectory(directory)), {path, script},
                         variables);
  } else if (!zr::BuildCgiVariables(*request, variables)) {
    return false;
  }
  const auto peer = request->peerWatch;
  runs_.Submit([this, &client, request, variables = std::move(variables),
                program = kind == ZrScriptKind::kPhp ? client.phpInterpreter : script](
                   const ZrWakeFlag& stop) { Answer(client, *request, program, variables, stop); },
               peer);
  return true;
}

void ZrCgi::Answer(ZrTransceiverClient& client, ZrXHeader& request, const std::string& program,
                   const ZrCgiVariables& variables, const ZrWakeFlag& stop) {
  try {
    const auto gone = std::make_shared<ZrWakeFlag>();
    const ZrPeerSubscription peer(request.peerWatch, [gone] { gone->Raise(); });
    if (peer.Gone()) return;
    const auto answer = request.MakeResponse();
    answer->body = std::make_unique<ZrStringBuf>();
    ZrStringBuf nothing;
    ZrStringBuf& input = request.body ? *request.body : nothing;
    const bool held = !stop.IsRaised() && zr::RunCgi(program, variables, input, *answer->body,
                                                     {limits_, &environment_, &stop, gone.get(),
                                                      client.Memory(), &roomQueue_});
    if (peer.Gone()) return;
    if (held && !stop.IsRaised()) {
      // The exit code says nothing: whatever was written is the answer.
      answer->SetStatus(200);
      answer->cgiHeadPending = true;
      client.SendAnswer(request, answer);
      return;
    }
  } catch (...) {
    // Out of memory or descriptors; the connection still waits for its answer.
  }
  client.SendAnswer(request, request.MakeResponse());
}
