#include "handlers/cgi.h"

#include <optional>
#include <utility>

#include "base/path.h"
#include "handlers/cgi_variables.h"
#include "handlers/program_stream.h"
#include "handlers/request_handler.h"
#include "http/message_head.h"
#include "http/request_target.h"
#include "http/response_head.h"
#include "platform/file.h"
#include "platform/filesystem.h"

namespace zr {

bool RunCgi(const std::string& program, const ZrCgiVariables& variables, ZrStringBuf& input,
            ZrStringBuf& output, const ZrPipeExecSettings& settings) {
  return ZrWinPipeExec(program, settings).Run(variables, input, output) != ZrPipeExecEnd::kLost;
}

}  // namespace zr

namespace {

// Programs that lead to each other end somewhere.
constexpr int kMostRedirects = 10;

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

// Its reader takes it as it comes, unless that was another program, which named this page.
bool BodyIsToCome(const ZrXHeader& request) {
  return request.inlet != nullptr && request.declaredLength != 0;
}

void AddStandardVariables(const ZrXHeader& request, std::string root,
                          const zr::ProgramPath& program, const std::string& script,
                          ZrCgiVariables& variables) {
  while (root.size() > 1 && root.ends_with('/')) root.pop_back();
  const auto words = request.headers[zr::kFirstLine];
  const auto& peer = request.PeerRecord().info;
  const std::string name = "/" + std::string(program.program);
  const std::string serverAddress = peer.Get("localaddress");
  const std::string serverPort = peer.Get("localport");
  const std::string remoteAddress = peer.Get("remoteaddress");
  const std::string remotePort = peer.Get("remoteport");
  zr::ProgramRequest facts{.method = MethodName(request.method),
                           .protocol = request.oldVersion ? "HTTP/1.0" : "HTTP/1.1",
                           .target = words.size() >= 2 ? words[1] : std::string_view(),
                           .query = request.query,
                           .scriptName = name,
                           .extraPath = program.extra,
                           .documentRoot = root,
                           .scriptFile = script,
                           .secure = request.ProtocolKind() == zr::kProtocolHttps,
                           .serverAddress = serverAddress,
                           .serverPort = serverPort,
                           .remoteAddress = remoteAddress,
                           .remotePort = remotePort,
                           .user = request.user,
                           .fields = &request.headers};
  if (request.body && !request.body->Empty()) facts.bodyBytes = request.body->Size();
  if (BodyIsToCome(request)) facts.bodyBytes = request.declaredLength;
  zr::BuildStandardVariables(facts, variables);
}

}  // namespace

ZrCgi::ZrCgi(ZrRinvalScheduler2& scheduler, ZrPipeExecLimits limits, std::size_t mostRuns)
    : limits_(limits), runs_(scheduler, mostRuns) {}

bool ZrCgi::RunScript(ZrTransceiverClient& client, const std::shared_ptr<ZrXHeader>& request,
                      const std::string& path, ZrScriptKind kind) {
  const std::string directory = zr::NormalizeDirectoryPath(client.startDirectory);
  const bool standard = request->semantics->IsStandard();
  zr::ProgramPath name{path, {}};
  if (standard) {
    const auto split = zr::SplitProgramPath(
        path, [&](std::string_view start) { return ZrFile::KindBeneath(directory, start); });
    if (!split || (kind == ZrScriptKind::kPhp && !split->program.ends_with(client.scriptExtension)))
      return false;
    name = *split;
  } else if (!ZrFile::ExistsBeneath(directory, path)) {
    return false;
  }
  // Programs change their working directory: the path must hold from everywhere.
  const std::string root = zr::SystemDirectory(directory);
  const std::string script = zr::AbsolutePath(root + std::string(name.program));
  ZrCgiVariables variables;
  if (standard) {
    AddStandardVariables(*request, zr::AbsolutePath(root), name, script, variables);
  } else {
    variables = {{"REDIRECT_STATUS", "CGI"}, {"SCRIPT_FILENAME", script}};
    if (!zr::BuildCgiVariables(*request, variables)) return false;
  }
  const auto job = std::make_shared<const Job>(
      Job{client, request, kind == ZrScriptKind::kPhp ? client.phpInterpreter : script,
          std::move(variables)});
  runs_.Submit([this, job](const ZrWakeFlag& stop) { Answer(*job, stop); }, request->peerWatch);
  return true;
}

void ZrCgi::Answer(const Job& job, const ZrWakeFlag& stop) {
  ZrXHeader& request = *job.request;
  try {
    const auto isGone = [&] { return request.peerWatch && request.peerWatch->Gone(); };
    if (isGone()) return;
    const bool standard = request.semantics->IsStandard();
    const ZrPipeExecSettings settings{.limits = limits_,
                                      .environment = &environment_,
                                      .stop = &stop,
                                      .peer = request.peerWatch,
                                      .memory = job.client.Memory(),
                                      .roomQueue = &roomQueue_,
                                      .streams = standard};
    if (standard && !stop.IsRaised()) return AnswerPieceByPiece(job, settings);
    const auto answer = request.MakeResponse();
    answer->body = std::make_unique<ZrStringBuf>();
    ZrStringBuf nothing;
    ZrStringBuf& input = request.body ? *request.body : nothing;
    const bool held =
        !stop.IsRaised() && zr::RunCgi(job.program, job.variables, input, *answer->body, settings);
    if (isGone()) return;
    if (held && !stop.IsRaised()) {
      // The exit code says nothing: whatever was written is the answer.
      answer->SetStatus(200);
      answer->cgiHeadPending = true;
      job.client.SendAnswer(request, answer);
      return;
    }
  } catch (...) {
    // Out of memory or descriptors; the connection still waits for its answer.
  }
  job.client.SendAnswer(request, request.MakeResponse());
}

// What fails before the answer has begun gets one from the caller; later the client sees the end.
void ZrCgi::AnswerPieceByPiece(const Job& job, const ZrPipeExecSettings& settings) {
  ZrXHeader& request = *job.request;
  ZrStringBuf nothing;
  ZrStringBuf& input = request.body ? *request.body : nothing;
  ZrProgramStream output(job.client, request, [this] { runs_.StepAside(); });
  ZrPipeExecSettings own = settings;
  std::optional<ZrProgramInput> arriving;
  if (BodyIsToCome(request)) {
    own.source = &arriving.emplace(request.inlet);
    output.AwaitInput();
  }
  auto end = ZrPipeExecEnd::kLost;
  try {
    end = ZrWinPipeExec(job.program, own).Run(job.variables, input, output);
  } catch (const std::exception&) {
    // As for one whose output cannot be held.
  }
  if (request.peerWatch && request.peerWatch->Gone() && !output.Begun()) return;
  const std::uint64_t refusal = arriving ? arriving->Refusal() : 0;
  arriving.reset();
  // The connection closes behind an answer to a body that never came.
  if (end == ZrPipeExecEnd::kNoInput) request.closeRequested = true;
  if (const std::string address = output.Finish(end, refusal); !address.empty())
    Redirect(job, address);
}

// The page that a program names instead of its own is served as if it had been asked for (RFC 3875,
// 6.2.2), without the body, which the program has read.
void ZrCgi::Redirect(const Job& job, const std::string& address) {
  ZrXHeader& request = *job.request;
  const auto target = zr::ParseRequestTarget(address);
  if (!target || ++request.localRedirects > kMostRedirects)
    return job.client.AnswerStatus(request, 502);
  request.path = target->path;
  request.query = target->query;
  if (request.method != ZrMethod::kHead) request.method = ZrMethod::kGet;
  request.body = std::make_unique<ZrStringBuf>();
  request.declaredLength = 0;
  job.client.ServeContent(job.request);
}
