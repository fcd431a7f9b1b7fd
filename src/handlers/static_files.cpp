#include "handlers/static_files.h"

#include <exception>
#include <memory>
#include <string>
#include <utility>

#include "base/path.h"
#include "base/string_buffer.h"
#include "handlers/request_handler.h"
#include "handlers/script_runner.h"
#include "handlers/served_path.h"
#include "html/error_page_404.h"
#include "http/message_head.h"
#include "http/response_head.h"
#include "platform/file.h"

namespace {

using File = std::shared_ptr<const ZrFile>;

/// Nothing when there is no such file or directory beneath the start directory.
File OpenFile(const ZrTransceiverClient& client, const std::string& path) {
  return ZrFile::OpenBeneath(zr::NormalizeDirectoryPath(client.startDirectory), path);
}

bool SendFile(ZrTransceiverClient& client, const ZrXHeader& request, const std::string& path,
              File file) {
  const auto answer = request.MakeResponse();
  answer->SetStatus(200);
  answer->SetFileBody(zr::NormalizeDirectoryPath(client.startDirectory) + path, file->Size());
  answer->SetBodyFile(std::move(file));
  client.SendAnswer(request, answer);
  return true;
}

/// What a stored page raises while it is made or sent ends in the 404 answer.
bool SendStoredPage(ZrTransceiverClient& client, const ZrXHeader& request,
                    const std::string& name) {
  try {
    const auto answer = request.MakeResponse();
    client.application->fillFromStorage(name, *answer);
    client.SendAnswer(request, answer);
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

}  // namespace

ZrStaticFiles::ZrStaticFiles(std::shared_ptr<ZrScriptRunner> scripts)
    : scripts_(std::move(scripts)), notFoundPage_(ZrHTML_ErrorMsg404().ToText()) {}

bool ZrStaticFiles::ServeRequest(ZrTransceiverClient& client,
                                 const std::shared_ptr<ZrXHeader>& request) {
  if (client.startDirectory.empty() || request->kind != ZrMessageKind::kRequest) {
    return false;
  }
  if (request->path == "/") {
    return ServeDefaultDocument(client, request);
  }
  const std::string path = request->path.substr(request->path.empty() ? 0 : 1);
  if (!zr::IsServedPath(path)) {
    return false;
  }
  if (client.application != nullptr && client.application->hasStoredValue(path)) {
    return SendStoredPage(client, *request, path);
  }
  return ServePath(client, request, path);
}

bool ZrStaticFiles::ServeDefaultDocument(ZrTransceiverClient& client,
                                         const std::shared_ptr<ZrXHeader>& request) {
  if (OpenFile(client, "index.php")) {
    return scripts_ && scripts_->RunScript(client, request, "index.php", ZrScriptKind::kPhp);
  }
  File file = OpenFile(client, "index.html");
  return file && SendFile(client, *request, "index.html", std::move(file));
}

bool ZrStaticFiles::ServePath(ZrTransceiverClient& client,
                              const std::shared_ptr<ZrXHeader>& request, const std::string& path) {
  if (path.starts_with(client.cgiUrlPrefix)) {
    const std::string program = client.cgiDirectory + path.substr(client.cgiUrlPrefix.size());
    return scripts_ && OpenFile(client, program) &&
           scripts_->RunScript(client, request, program, ZrScriptKind::kProgram);
  }
  File file = OpenFile(client, path);
  if (!file) {
    return false;
  }
  if (path.size() > client.scriptExtension.size() && path.ends_with(client.scriptExtension)) {
    return scripts_ && scripts_->RunScript(client, request, path, ZrScriptKind::kPhp);
  }
  return SendFile(client, *request, path, std::move(file));
}

void ZrStaticFiles::AnswerNotFound(ZrTransceiverClient& client,
                                   const std::shared_ptr<ZrXHeader>& request) {
  const auto answer = request->MakeResponse();
  answer->SetStatus(404);
  answer->body = std::make_unique<ZrStringBuf>();
  answer->body->Append(notFoundPage_);
  client.SendAnswer(*request, answer);
}
