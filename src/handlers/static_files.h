#pragma once
// Maps the path of a request onto stored pages, scripts and the files beneath the client's start
// directory. A file is answered by reference: it is opened here, once, and its bytes are read as
// the socket takes them. What leaves the start directory, links included, does not exist.

#include <memory>
#include <string>
#include <string_view>

#include "handlers/content_handler.h"
#include "handlers/served_files.h"

class ZrScriptRunner;
enum class ZrScriptKind;

/// The routing of one application; between requests it keeps its start directories open, and
/// nothing else. Threads: any.
class ZrStaticFiles : public ZrContentHandler {
 public:
  /// Without runner no script is served.
  explicit ZrStaticFiles(std::shared_ptr<ZrScriptRunner> scripts);

  /// Answers from, in this order: the default documents for "/", a stored page, a program under
  /// "cgi-bin/", a PHP script, a plain file. No: the start directory is empty, the path is
  /// none that is served (zr::IsServedPath) or nothing of these is there.
  bool ServeRequest(ZrTransceiverClient& client,
                    const std::shared_ptr<ZrXHeader>& request) override;
  bool ReadsBody(ZrTransceiverClient& client, const ZrXHeader& request) override;
  bool StreamsBody(ZrTransceiverClient& client, const ZrXHeader& request) override {
    return ReadsBody(client, request);
  }
  bool CannotWait(ZrTransceiverClient& client, const ZrXHeader& request) override;
  void AnswerNotFound(ZrTransceiverClient& client,
                      const std::shared_ptr<ZrXHeader>& request) override;

 private:
  bool RunScript(ZrTransceiverClient& client, const std::shared_ptr<ZrXHeader>& request,
                 const std::string& path, ZrScriptKind kind);
  bool SendFile(ZrTransceiverClient& client, const std::shared_ptr<ZrXHeader>& request,
                const std::string& path, ZrServedFiles::Found found);
  /// `vary`: a constant, what the answer depends on beside its form; may be empty.
  void SendStandardFile(ZrTransceiverClient& client, const std::shared_ptr<ZrXHeader>& request,
                        const std::string& path, ZrServedFiles::Found found,
                        std::string_view vary = {});
  bool ServeDirectory(ZrTransceiverClient& client, const std::shared_ptr<ZrXHeader>& request,
                      const std::string& path);
  bool ListDirectory(ZrTransceiverClient& client, const ZrXHeader& request,
                     const std::string& path);
  bool ServeFallback(ZrTransceiverClient& client, const std::shared_ptr<ZrXHeader>& request);
  bool ServeDefaultDocument(ZrTransceiverClient& client, const std::shared_ptr<ZrXHeader>& request);
  bool ServePath(ZrTransceiverClient& client, const std::shared_ptr<ZrXHeader>& request,
                 const std::string& path);

  ZrServedFiles files_;
  const std::shared_ptr<ZrScriptRunner> scripts_;
  // The same for every request. Not one for all applications: it would be destroyed at the exit of
  // a host that does not stop its servers, and their tasks still read it then.
  const std::string notFoundPage_;
};
