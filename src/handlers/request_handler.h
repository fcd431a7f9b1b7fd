#pragma once
// The application's end point on the transceiver, one object per server: it opens its server and
// decides what becomes of every complete message that arrives there. A request is tried as a form
// command, then as a page, script or file, and gets the 404 answer otherwise. Despite its name it
// is the server side of an exchange; it is a client of the transceiver. HandleMessage runs on the
// servers' queue tasks, for several connections at once.

#include <cstddef>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include "base/memory_budget.h"
#include "base/option_map.h"
#include "base/send_failure.h"
#include "base/server_callback.h"
#include "handlers/content_handler.h"
#include "handlers/request_application.h"
#include "handlers/site.h"
#include "jobs/job.h"
#include "platform/sync.h"
#include "transceiver/answer_stream.h"
#include "transceiver/fwd.h"
#include "transceiver/message_handler.h"

class ZrCompression;

/// Held in shared ownership (zr::MakeJob), by its application and by the transceiver.
class ZrTransceiverClient : public ZrJob, public ZrMessageHandler {
 public:
  /// The callback gets the reports of every server it opens. Options read here:
  /// "_baseDirectoryHTTP", the directory of the files that are served (none when empty),
  /// "_phpbinname", the PHP interpreter, and "_app_context_commandurl", the path of commands
  /// without an id. The application may be null and otherwise outlives the client; without content
  /// handler only form commands are answered.
  ZrTransceiverClient(ZrServerCallback callback, ZrOptionMap options,
                      ZrRequestApplication* application, std::shared_ptr<ZrContentHandler> content);
  /// Leaves a joined task whose exchange is over and, when that was without an answer, says so by
  /// MessageFailed(); every other event is accepted and ignored.
  bool ReceiveEvent(const ZrJobEvent& event) override;
  ~ZrTransceiverClient() override;

  /// Tries the request as a form command; whether that answered it. Only HTTP and HTTPS have them.
  virtual bool FormCommandStep(const std::shared_ptr<ZrXHeader>& request);
  /// Take an answer to a message of this client; whether it was accepted.
  virtual bool AcceptSocketAnswer(const std::string& name,
                                  const std::shared_ptr<ZrXHeader>& answer);
  virtual bool AcceptHttpAnswer(const std::string& name, const std::shared_ptr<ZrXHeader>& answer);
  virtual bool AcceptQuarnAnswer(const std::string& name, const std::shared_ptr<ZrXHeader>& answer);
  bool AttachTransceiver(ZrTransceiver& transceiver) override;
  /// Waits for answers that are being handed over; none is afterwards. Must not be called from
  /// within such a call, that is by a server callback.
  void DetachTransceiver(ZrTransceiver& transceiver) override;
  /// Room for derived classes; does nothing.
  virtual void Hook() {}
  int HandleMessage(const std::string& name, std::shared_ptr<ZrXHeader> message) override;
  /// Room for derived classes; does nothing.
  virtual void TextHook(const std::string& /*text*/) {}
  bool OnHeadComplete(ZrXHeader& head) override;
  /// Sends a request of this client's own, whose job state is 6; its answer comes to HandleMessage
  /// under the name that is returned, the message's own. Empty when there is no message or no
  /// transceiver; another name (CommonErrorName()) when nothing was sent. May take as long as
  /// connecting does. Every message that is not answered is reported once by MessageFailed(), also
  /// one that this call refused because its target cannot be reached. The flag means nothing.
  virtual std::string SendMessage(std::shared_ptr<ZrXHeader> message, bool flag = true);
  /// A message of this client got no answer and will get none. Called on the thread that delivers
  /// events, with this client's job lock held: it must neither wait nor send. Does nothing here.
  virtual void MessageFailed(const std::string& /*name*/, const ZrSendFailure& /*failure*/) {}
  /// Opens the server that the head configures; returns the name under which its messages come,
  /// empty without a transceiver. Throws what the making of the server throws.
  virtual std::string OpenServer(std::shared_ptr<ZrXServerHeader> configuration);

  /// Brings an answer to the state in which it is sent and sends it on the way that its request
  /// came; a text that the client takes compressed later, when it is. The answer is not the
  /// caller's any more. Without transceiver it is dropped. No lock of this client is held
  /// meanwhile. Threads: any.
  void SendAnswer(const ZrXHeader& request, const std::shared_ptr<ZrXResponseHeader>& answer);

  /// Bodies are compressed there for clients that accept it, in standard semantics. Call it before
  /// the client is registered; the compressions are stopped before it goes.
  void Compress(std::shared_ptr<ZrCompression> compression) {
    compression_ = std::move(compression);
  }
  /// None: they are not.
  ZrCompression* Compression() const { return compression_.get(); }

  /// A way to answer the request, which is one of standard semantics, piece by piece.
  std::unique_ptr<ZrAnswerStream> OpenAnswer(const ZrXHeader& request,
                                             ZrAnswerStream::Notices notices = {});

  /// Serves a request from pages, scripts and files, or says that it was not found. Threads: any.
  void ServeContent(const std::shared_ptr<ZrXHeader>& request);
  /// Answers with a status and a short page that says it; `allow` is the list of methods that a 204
  /// or 405 names. Threads: any.
  void AnswerStatus(const ZrXHeader& request, std::uint64_t status, std::string_view allow = {});
  /// Answers an HTTP request as if the content handler had not taken it. Threads: any.
  void AnswerUntaken(const std::shared_ptr<ZrXHeader>& request);
  /// What all peers of the transceiver together may occupy; none without transceiver.
  std::shared_ptr<ZrMemoryBudget> Memory();
  /// Messages of this client that need neither a host's code nor the disk may be answered by the
  /// thread that received them. For whoever makes a client of this very class: a derived one may do
  /// more for a message than this one knows. Call it before the client is registered.
  void AnswerAtOnce() { answersAtOnce_ = true; }
  /// What the site has beyond its files, for servers in standard semantics. Call it before the
  /// client is registered; never null.
  void SetSite(std::shared_ptr<const ZrSite> site) { site_ = std::move(site); }
  const ZrSite& Site() const { return *site_; }
  bool CannotWait(const ZrXHeader& message) override;

  ZrTransceiver* EnterTransceiver() override ZR_EXCLUDES(lock_);
  void LeaveTransceiver() override ZR_EXCLUDES(lock_);
  ZrJob& HandlerJob() override { return *this; }

  // Constant after construction.
  const std::string startDirectory;  // of the files, in its stored form
  const std::string fileDirectory;   // the same, normalized
  const std::string cgiUrlPrefix = "cgi-bin/";
  const std::string cgiDirectory = "cgi-bin/";
  const std::string scriptExtension = ".php";
  const std::string phpInterpreter;
  const ZrServerCallback callback;
  const ZrOptionMap options;
  const std::string commandUrl;
  const std::string idField = "quarnid";
  const std::string commandField = "quarncommand";
  ZrRequestApplication* const application;

 private:
  /// Who gave a name that messages come under.
  enum class Owned { kServer = 1, kMessage = 2 };
  class TransceiverUse;

  void OnUnanswered(const ZrJobEvent& event);
  bool AnswerByRule(const std::shared_ptr<ZrXHeader>& request);
  bool CompressFirst(const ZrXHeader& request, const std::shared_ptr<ZrXResponseHeader>& answer);
  void SendNow(const std::string& target, const std::shared_ptr<ZrXResponseHeader>& answer);
  int AnswerRequest(const std::shared_ptr<ZrXHeader>& request);
  int AcceptAnswer(const std::string& name, const std::shared_ptr<ZrXHeader>& answer);
  bool RunCommand(const std::shared_ptr<ZrXHeader>& request, const std::string& id);
  std::string Remember(const std::string& name, Owned owned) ZR_EXCLUDES(lock_);

  const std::shared_ptr<ZrContentHandler> content_;
  bool answersAtOnce_ = false;
  std::shared_ptr<const ZrSite> site_ = std::make_shared<const ZrSite>();
  std::shared_ptr<ZrCompression> compression_;

  ZrMutex lock_;  // never held while calling out
  ZrTransceiver* transceiver_ ZR_GUARDED_BY(lock_) = nullptr;
  std::map<std::string, Owned, std::less<>> ownedNames_ ZR_GUARDED_BY(lock_);
  std::size_t uses_ ZR_GUARDED_BY(lock_) = 0;  // calls into the transceiver that are under way
  ZrCondition unused_;                         // uses_ became 0
};
