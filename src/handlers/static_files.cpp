#include "handlers/static_files.h"

#include <memory>
#include <string>
#include <utility>

#include "base/string_buffer.h"
#include "handlers/compression.h"
#include "handlers/request_handler.h"
#include "handlers/script_runner.h"
#include "handlers/served_path.h"
#include "handlers/standard_files.h"
#include "html/error_page_404.h"
#include "http/message_head.h"
#include "http/response_head.h"

namespace {

/// Whether the method had its answer: files and stored pages do not change by a request.
bool AnswerMethod(ZrTransceiverClient& client, const ZrXHeader& request) {
  constexpr std::string_view kMethods = "GET, HEAD, POST, OPTIONS";
  if (request.method == ZrMethod::kOptions) {
    client.AnswerStatus(request, 204, kMethods);
    return true;
  }
  if (request.method != ZrMethod::kPut && request.method != ZrMethod::kPatch &&
      request.method != ZrMethod::kDelete)
    return false;
  client.AnswerStatus(request, 405, kMethods);
  return true;
}

// Hidden names are, but for the one folder that the whole web knows (RFC 8615).
bool IsServed(const ZrXHeader& request, std::string_view path) {
  constexpr std::string_view kWellKnown = ".well-known/";
  const bool known = request.semantics->IsStandard() && path.starts_with(kWellKnown);
  return zr::IsServedPath(known ? path.substr(kWellKnown.size()) : path);
}

/// Whether the path may go on behind the name of a script; only standard semantics know that.
bool HasExtraPath(const ZrTransceiverClient& client, const ZrXHeader& request,
                  std::string_view path) {
  if (!request.semantics->IsStandard()) return false;
  const std::string_view extension = client.scriptExtension;
  for (std::size_t at = path.find(extension); at != path.npos; at = path.find(extension, at + 1))
    if (path.substr(at + extension.size()).starts_with('/')) return true;
  return false;
}

/// What a stored page raises while it is made ends in the 404 answer. What is raised while it is
/// sent does not: a part of it may be on its way.
bool SendStoredPage(ZrTransceiverClient& client, const ZrXHeader& request,
                    const std::string& name) {
  if (AnswerMethod(client, request)) return true;
  std::shared_ptr<ZrXResponseHeader> answer;
  try {
    answer = request.MakeResponse();
    client.application->fillFromStorage(name, *answer);
  } catch (...) {
    return false;
  }
  client.SendAnswer(request, answer);
  return true;
}

}  // namespace

ZrStaticFiles::ZrStaticFiles(std::shared_ptr<ZrScriptRunner> scripts)
    : scripts_(std::move(scripts)), notFoundPage_(ZrHTML_ErrorMsg404().ToText()) {}

bool ZrStaticFiles::ServeRequest(ZrTransceiverClient& client,
                                 const std::shared_ptr<ZrXHeader>& request) {
  if (client.startDirectory.empty() || request->kind != ZrMessageKind::kRequest) return false;
  if (request->path == "/") {
    return request->semantics->IsStandard() ? ServeDirectory(client, request, {})
                                            : ServeDefaultDocument(client, request);
  }
  const std::string path = request->path.substr(request->path.empty() ? 0 : 1);
  if (!IsServed(*request, path)) return false;
  if (client.application != nullptr && client.application->hasStoredValue(path))
    return SendStoredPage(client, *request, path);
  return ServePath(client, request, path);
}

// Its methods are its own, and it is not run to be asked for them.
bool ZrStaticFiles::RunScript(ZrTransceiverClient& client,
                              const std::shared_ptr<ZrXHeader>& request, const std::string& path,
                              ZrScriptKind kind) {
  return scripts_ && request->method != ZrMethod::kOptions &&
         scripts_->RunScript(client, request, path, kind);
}

bool ZrStaticFiles::SendFile(ZrTransceiverClient& client, const std::shared_ptr<ZrXHeader>& request,
                             const std::string& path, ZrServedFiles::Found found) {
  if (AnswerMethod(client, *request)) return true;
  if (request->semantics->IsStandard()) {
    SendStandardFile(client, request, path, std::move(found));
    return true;
  }
  const auto answer = request->MakeResponse();
  answer->SetStatus(200);
  const std::uint64_t length = found.file->Size();
  answer->SetFileBody(std::move(found.file), length);
  answer->fileBytes = std::move(found.bytes);
  client.SendAnswer(*request, answer);
  return true;
}

void ZrStaticFiles::SendStandardFile(ZrTransceiverClient& client,
                                     const std::shared_ptr<ZrXHeader>& request,
                                     const std::string& path, ZrServedFiles::Found found,
                                     std::string_view vary) {
  const std::string& directory = client.fileDirectory;
  const ZrSite& site = client.Site();
  zr::FileForm form{.found = std::move(found)};
  if (client.Compression() != nullptr)
    form = zr::ChooseFileForm(*request, files_, directory, path, std::move(form.found), site);
  const auto answer = request->MakeResponse();
  if (!vary.empty()) answer->AddField("Vary", vary);
  if (!form.compresses) {
    zr::AnswerWithFile(*request, *answer, path, std::move(form), site);
    return client.SendAnswer(*request, answer);
  }
  // The notes are this batch's, the plain form may be sent later.
  const zr::FileForm plain{.found = {.file = form.found.file, .bytes = form.found.bytes},
                           .varies = true};
  const ZrCoding coding = form.coding;
  zr::AnswerWithFile(*request, *answer, path, std::move(form), site);
  // Who has that version already is not made to wait for it.
  if (answer->status != 200) return client.SendAnswer(*request, answer);
  const auto send = [&client, request, answer, name = path, plain,
                     vary](const ZrCompression::Bytes& made) {
    if (made) {
      answer->SetBytesBody(made);
      return client.SendAnswer(*request, answer);
    }
    const auto uncoded = request->MakeResponse();
    if (!vary.empty()) uncoded->AddField("Vary", vary);
    zr::AnswerWithFile(*request, *uncoded, name, plain, client.Site());
    client.SendAnswer(*request, uncoded);
  };
  if (!client.Compression()->OfFile(plain.found.file, coding, send)) send(nullptr);
}

// Programs and scripts do, by the names that they have; whether they are there is seen later.
bool ZrStaticFiles::ReadsBody(ZrTransceiverClient& client, const ZrXHeader& request) {
  if (client.startDirectory.empty() || !scripts_) return false;
  const std::string_view path = request.path;
  return path.substr(0, 1 + client.cgiUrlPrefix.size()) == "/" + client.cgiUrlPrefix ||
         path.ends_with(client.scriptExtension) || path.ends_with('/') ||
         HasExtraPath(client, request, path);
}

// Files that the system has in memory, large ones but for parts of them, and what is not there.
// Stored pages may be long, programs are waited for.
bool ZrStaticFiles::CannotWait(ZrTransceiverClient& client, const ZrXHeader& request) {
  if (client.startDirectory.empty()) return true;
  const std::string& directory = client.fileDirectory;
  const ZrSite& site = client.Site();
  const bool parts = request.semantics->IsStandard() && request.headers.contains("range");
  const auto readAtHand = [&](const std::string& path) {
    if (!files_.IsAtHand(directory, path)) return false;
    if (!parts) return true;
    const ZrServedFiles::Found found = files_.Find(directory, path);
    return !found.file || found.bytes;
  };
  const auto formAtHand = [&](const std::string& path) {
    return readAtHand(path) &&
           (client.Compression() == nullptr || zr::IsFormAtHand(request, files_, directory, path));
  };
  // Of what is not there, the page that answers for it is asked as well.
  const auto atHand = [&](const std::string& path) {
    return formAtHand(path) && (site.fallback.empty() || files_.Find(directory, path).file ||
                                formAtHand(site.fallback));
  };
  if (request.path == "/") {
    return !site.browse && files_.IsAtHand(directory, "index.php") &&
           !files_.Find(directory, "index.php").file && atHand("index.html");
  }
  const std::string path = request.path.substr(request.path.empty() ? 0 : 1);
  if (!IsServed(request, path)) return true;
  if (path.starts_with(client.cgiUrlPrefix) || path.ends_with(client.scriptExtension) ||
      HasExtraPath(client, request, path))
    return false;
  if (client.application != nullptr && client.application->hasStoredValue(path)) return false;
  return atHand(path);
}

bool ZrStaticFiles::ServeDefaultDocument(ZrTransceiverClient& client,
                                         const std::shared_ptr<ZrXHeader>& request) {
  const std::string& directory = client.fileDirectory;
  if (files_.Find(directory, "index.php").file)
    return RunScript(client, request, "index.php", ZrScriptKind::kPhp);
  ZrServedFiles::Found index = files_.Find(directory, "index.html");
  return index.file && SendFile(client, request, "index.html", std::move(index));
}

bool ZrStaticFiles::ServePath(ZrTransceiverClient& client,
                              const std::shared_ptr<ZrXHeader>& request, const std::string& path) {
  if (path.starts_with(client.cgiUrlPrefix)) {
    const std::string program = client.cgiDirectory + path.substr(client.cgiUrlPrefix.size());
    return RunScript(client, request, program, ZrScriptKind::kProgram);
  }
  ZrServedFiles::Found found = files_.Find(client.fileDirectory, path);
  if (!found.file) {
    return HasExtraPath(client, *request, path) &&
           RunScript(client, request, path, ZrScriptKind::kPhp);
  }
  if (found.file->IsDirectory() && request->semantics->IsStandard())
    return ServeDirectory(client, request, path);
  if (path.size() > client.scriptExtension.size() && path.ends_with(client.scriptExtension))
    return RunScript(client, request, path, ZrScriptKind::kPhp);
  return SendFile(client, request, path, std::move(found));
}

// What a directory answers in standard semantics: its own page, at an address that ends with a
// slash, so that the links of the page lead where they are meant to.
bool ZrStaticFiles::ServeDirectory(ZrTransceiverClient& client,
                                   const std::shared_ptr<ZrXHeader>& request,
                                   const std::string& path) {
  if (!path.empty() && !path.ends_with('/')) {
    if (AnswerMethod(client, *request)) return true;
    const auto answer = request->MakeResponse();
    zr::AnswerWithPage(*request, *answer, 301, client.Site());
    answer->SetField("Location", zr::DirectoryAddress(*request));
    client.SendAnswer(*request, answer);
    return true;
  }
  const std::string& directory = client.fileDirectory;
  const std::string script = path + "index" + client.scriptExtension;
  if (files_.Find(directory, script).file)
    return RunScript(client, request, script, ZrScriptKind::kPhp);
  const std::string page = path + "index.html";
  ZrServedFiles::Found index = files_.Find(directory, page);
  if (index.file && !index.file->IsDirectory())
    return SendFile(client, request, page, std::move(index));
  return client.Site().browse && ListDirectory(client, *request, path);
}

bool ZrStaticFiles::ListDirectory(ZrTransceiverClient& client, const ZrXHeader& request,
                                  const std::string& path) {
  const std::string& start = client.fileDirectory;
  const auto directory = files_.Find(start, path.empty() ? "." : path).file;
  if (!directory) return false;
  if (AnswerMethod(client, request)) return true;
  const auto answer = request.MakeResponse();
  zr::AnswerWithListing(*answer, *directory, path,
                        [&](const std::string& link) { return files_.Find(start, link).file; });
  client.SendAnswer(request, answer);
  return true;
}

// A path that a program in the browser knows, not the site: pages only, so that a script or a
// picture that is missing is said to be missing.
bool ZrStaticFiles::ServeFallback(ZrTransceiverClient& client,
                                  const std::shared_ptr<ZrXHeader>& request) {
  const std::string& page = client.Site().fallback;
  if (page.empty() || !zr::AsksForPage(*request)) return false;
  if (request->path != "/" &&
      !IsServed(*request, request->path.substr(request->path.empty() ? 0 : 1)))
    return false;
  ZrServedFiles::Found found = files_.Find(client.fileDirectory, page);
  if (!found.file || !found.file->IsRegular()) return false;
  SendStandardFile(client, request, page, std::move(found), "Accept");
  return true;
}

void ZrStaticFiles::AnswerNotFound(ZrTransceiverClient& client,
                                   const std::shared_ptr<ZrXHeader>& request) {
  const auto answer = request->MakeResponse();
  if (request->semantics->IsStandard()) {
    if (ServeFallback(client, request)) return;
    zr::AnswerWithPage(*request, *answer, 404, client.Site());
    return client.SendAnswer(*request, answer);
  }
  answer->SetStatus(404);
  answer->body = std::make_unique<ZrStringBuf>();
  answer->body->Append(notFoundPage_);
  client.SendAnswer(*request, answer);
}
