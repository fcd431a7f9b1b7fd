#include "handlers/request_handler.h"

#include <utility>

#include "base/batch.h"
#include "base/path.h"
#include "handlers/command_handler.h"
#include "handlers/compression.h"
#include "handlers/standard_files.h"
#include "http/body_coding.h"
#include "http/body_store.h"
#include "http/form_body.h"
#include "http/message_head.h"
#include "http/protocol_kind.h"
#include "http/response_head.h"
#include "http/server_head.h"
#include "jobs/job_event.h"
#include "jobs/job_registry.h"
#include "platform/file.h"
#include "transceiver/message_ends.h"
#include "transceiver/receive_pass.h"
#include "transceiver/transceiver.h"

namespace {

/// An answer starts with this status; one that a handler left at it was not answered.
constexpr std::uint64_t kUnansweredStatus = 500;

// The results of HandleMessage; all but the first end the message's assembly.
constexpr int kMeaningless = 0;
constexpr int kHandled = 1;

/// Code of a host's runs: it may change what was looked up for the batch before it.
struct HostCode {
  HostCode() = default;
  HostCode(const HostCode&) = delete;
  HostCode& operator=(const HostCode&) = delete;
  ~HostCode() {
    if (ZrBatch* const batch = ZrBatch::Current()) batch->Forget();
  }
};

// What a host's callback throws, of whatever type, is its own affair: an answer that is on its way
// is neither broken off nor given twice for it.
ZrServerCallback Guarded(ZrServerCallback reports) {
  if (!reports) return reports;
  return [reports = std::move(reports)](ZrServerCallback_t& record) {
    try {
      return reports(record);
    } catch (...) {
      return false;
    }
  };
}

constexpr std::string_view kAllMethods = "GET, HEAD, POST, PUT, PATCH, DELETE, OPTIONS";

bool IsHttp(std::uint32_t protocolKind) {
  return protocolKind == zr::kProtocolHttp || protocolKind == zr::kProtocolHttps;
}

}  // namespace

/// One call into the transceiver, with no lock held: DetachTransceiver waits for its end.
class ZrTransceiverClient::TransceiverUse {
 public:
  explicit TransceiverUse(ZrTransceiverClient& client)
      : client_(client),
        entered_(EnteredByPass(client)),
        transceiver_(entered_ != nullptr ? entered_ : client.EnterTransceiver()) {}
  ~TransceiverUse() {
    if (transceiver_ != nullptr && entered_ == nullptr) client_.LeaveTransceiver();
  }
  TransceiverUse(const TransceiverUse&) = delete;
  TransceiverUse& operator=(const TransceiverUse&) = delete;

  /// Null when the client is not attached.
  ZrTransceiver* Get() const { return transceiver_; }

 private:
  static ZrTransceiver* EnteredByPass(const ZrTransceiverClient& client) {
    const ZrReceivePass* const pass = ZrReceivePass::Current();
    return pass == nullptr ? nullptr : pass->EnteredOf(client);
  }

  ZrTransceiverClient& client_;
  ZrTransceiver* const entered_;  // by the pass of receiving, for all of its messages
  ZrTransceiver* const transceiver_;
};

ZrTransceiver* ZrTransceiverClient::EnterTransceiver() {
  ZrLock hold(lock_);
  if (transceiver_ != nullptr) ++uses_;
  return transceiver_;
}

void ZrTransceiverClient::LeaveTransceiver() {
  ZrLock hold(lock_);
  if (--uses_ == 0) unused_.NotifyAll();
}

ZrTransceiverClient::ZrTransceiverClient(ZrServerCallback reports, ZrOptionMap settings,
                                         ZrRequestApplication* asked,
                                         std::shared_ptr<ZrContentHandler> content)
    : startDirectory(settings.Get("_baseDirectoryHTTP")),
      fileDirectory(zr::NormalizeDirectoryPath(startDirectory)),
      phpInterpreter(settings.Get("_phpbinname", "php-cgi.exe")),
      callback(Guarded(std::move(reports))),
      options(std::move(settings)),
      commandUrl(options.Get("_app_context_commandurl")),
      application(asked),
      content_(std::move(content)) {}

ZrTransceiverClient::~ZrTransceiverClient() = default;

bool ZrTransceiverClient::ReceiveEvent(const ZrJobEvent& event) {
  if (event.code == kZrEventLastMember) {
    if (const auto task = event.fields.find("ctask"); task != event.fields.end()) {
      Detach(task->second);
      OnUnanswered(event);
    }
  }
  return true;
}

void ZrTransceiverClient::OnUnanswered(const ZrJobEvent& event) {
  const auto head = event.fields.find("head");
  const auto reason = event.fields.find("reason");
  const auto error = event.fields.find("error");
  const auto end = event.fields.end();
  if (head == end || reason == end || error == end) return;
  {
    // Of an answer and the word that there is none, the first one counts.
    ZrLock hold(lock_);
    if (ownedNames_.erase(head->second) == 0) return;
  }
  MessageFailed(head->second, {zr::SendFailureKindOf(reason->second), error->second});
}

bool ZrTransceiverClient::AttachTransceiver(ZrTransceiver& transceiver) {
  ZrLock hold(lock_);
  if (transceiver_ != nullptr) return false;
  transceiver_ = &transceiver;
  return true;
}

void ZrTransceiverClient::DetachTransceiver(ZrTransceiver& transceiver) {
  ZrLock hold(lock_);
  if (transceiver_ == &transceiver) {
    transceiver_ = nullptr;
    unused_.Wait(lock_, [this]() ZR_REQUIRES(lock_) { return uses_ == 0; });
  }
}

std::string ZrTransceiverClient::Remember(const std::string& name, Owned owned) {
  if (!name.empty()) {
    ZrLock hold(lock_);
    ownedNames_[name] = owned;
  }
  return name;
}

std::string ZrTransceiverClient::OpenServer(std::shared_ptr<ZrXServerHeader> configuration) {
  // The name is known before the server runs, so that its first message finds it.
  const std::string expected = configuration->JobName();
  Remember(expected, Owned::kServer);
  const TransceiverUse transceiver(*this);
  std::string name;
  if (transceiver.Get() != nullptr)
    name = transceiver.Get()->OpenServer(*this, std::move(configuration), callback);
  if (name != expected) {
    ZrLock hold(lock_);
    ownedNames_.erase(expected);
  }
  return name == expected ? name : Remember(name, Owned::kServer);
}

std::string ZrTransceiverClient::SendMessage(std::shared_ptr<ZrXHeader> message, bool flag) {
  const TransceiverUse transceiver(*this);
  if (!message || transceiver.Get() == nullptr) return {};
  // The answer may be there before Send returns.
  if (message->kind == ZrMessageKind::kUnrecognised)
    message->kind = ZrMessageKind::kRequest;  // nobody has read it: it was made here
  const std::string expected = message->JobName();
  Remember(expected, Owned::kMessage);
  const std::string task = CreateJoinedTask("send_" + expected);
  message->Attach(task);
  std::string name = transceiver.Get()->Send(*this, std::move(message), callback, task, flag);
  if (name != expected) {
    // By an event, behind the one that tells a better reason where there is one.
    ZrJobEvent event;
    event.jobName = JobName();
    event.code = kZrEventLastMember;
    event.fields = {{"ctask", task},
                    {"head", expected},
                    {"reason", std::string(zr::SendFailureReason(ZrSendFailureKind::kNotSent))},
                    {"error", "there is no way to its target"}};
    ZrJobRegistry::Instance().Post(JobName(), std::move(event));
  }
  return name;
}

void ZrTransceiverClient::SendAnswer(const ZrXHeader& request,
                                     const std::shared_ptr<ZrXResponseHeader>& answer) {
  if (answer->semantics->IsStandard()) answer->addedFields = site_->Fields();
  if (!CompressFirst(request, answer)) SendNow(request.target, answer);
}

void ZrTransceiverClient::SendNow(const std::string& target,
                                  const std::shared_ptr<ZrXResponseHeader>& answer) {
  answer->SetState(zr::kHeadStateComplete);
  const TransceiverUse transceiver(*this);
  if (transceiver.Get() != nullptr) transceiver.Get()->SendAnswer(*this, answer, target);
}

// Whether the answer is on its way there, and sent afterwards.
bool ZrTransceiverClient::CompressFirst(const ZrXHeader& request,
                                        const std::shared_ptr<ZrXResponseHeader>& answer) {
  if (!compression_ || !answer->body || answer->body->Size() < zr::kLeastCompressed) return false;
  const ZrCoding coding = zr::ChooseBodyCoding(request, *answer, answer->body->Size());
  if (coding == ZrCoding::kIdentity) return false;
  return compression_->OfBody(
      answer->body->Unread(), coding, request.peerWatch,
      [this, answer, coding, target = request.target](const ZrCompression::Bytes& made) {
        if (made) {
          zr::SetBodyCoding(*answer, coding);
          answer->SetBytesBody(made);
        }
        SendNow(target, answer);
      });
}

std::unique_ptr<ZrAnswerStream> ZrTransceiverClient::OpenAnswer(const ZrXHeader& request,
                                                                ZrAnswerStream::Notices notices) {
  const TransceiverUse transceiver(*this);
  return std::make_unique<ZrAnswerStream>(
      transceiver.Get() == nullptr ? nullptr : transceiver.Get()->FindClient(JobName()), request,
      std::move(notices));
}

std::shared_ptr<ZrMemoryBudget> ZrTransceiverClient::Memory() {
  const TransceiverUse transceiver(*this);
  return transceiver.Get() == nullptr ? nullptr : transceiver.Get()->Memory();
}

int ZrTransceiverClient::HandleMessage(const std::string& name,
                                       std::shared_ptr<ZrXHeader> message) {
  // A request of a server that was opened for this very client comes under a name of it.
  const bool owned =
      message->kind == ZrMessageKind::kRequest && message->ends && message->ends->handler == this;
  if (!owned) {
    ZrLock hold(lock_);
    if (ownedNames_.find(name) == ownedNames_.end()) return kHandled;
  }
  switch (message->kind.load()) {
    case ZrMessageKind::kRequest:
      return AnswerRequest(message);
    case ZrMessageKind::kResponse:
      return AcceptAnswer(name, message);
    case ZrMessageKind::kUnrecognised:
      break;
  }
  return kMeaningless;
}

// What is answered, or taken, before anything looks for a command or a file.
bool ZrTransceiverClient::AnswerByRule(const std::shared_ptr<ZrXHeader>& request) {
  if (request->refusal != 0) {
    AnswerStatus(*request, request->refusal);
    return true;
  }
  return content_ && content_->TakeRequest(*this, request);
}

void ZrTransceiverClient::AnswerUntaken(const std::shared_ptr<ZrXHeader>& request) {
  const bool asks = request->method == ZrMethod::kOptions;
  if (asks && (!content_ || request->path == "*")) return AnswerStatus(*request, 204, kAllMethods);
  if (asks || !FormCommandStep(request)) ServeContent(request);
}

void ZrTransceiverClient::AnswerStatus(const ZrXHeader& request, std::uint64_t status,
                                       std::string_view allow) {
  const auto answer = request.MakeResponse();
  if (status != 204) zr::AnswerWithPage(request, *answer, status, *site_);
  if (!allow.empty()) answer->SetField("allow", allow);
  answer->SetStatus(status);
  SendAnswer(request, answer);
}

// A query that may name a form command goes the long way.
bool ZrTransceiverClient::CannotWait(const ZrXHeader& message) {
  return answersAtOnce_ && content_ && message.kind == ZrMessageKind::kRequest &&
         IsHttp(message.ProtocolKind()) && message.messageType == ZrMessageType::kGet &&
         message.refusal == 0 &&
         (message.method == ZrMethod::kGet || message.method == ZrMethod::kHead) &&
         message.declaredLength == 0 && message.query.find('%') == std::string::npos &&
         message.query.find(idField) == std::string::npos &&
         (commandUrl.empty() || commandUrl != message.path) && content_->CannotWait(*this, message);
}

int ZrTransceiverClient::AnswerRequest(const std::shared_ptr<ZrXHeader>& request) {
  switch (request->ProtocolKind()) {
    case zr::kProtocolSocket:
      return kHandled;
    case zr::kProtocolHttp:
    case zr::kProtocolHttps:
      if (!AnswerByRule(request)) AnswerUntaken(request);
      return kHandled;
    case zr::kProtocolQuarn:
      if (!FormCommandStep(request)) {
        const auto answer = request->MakeResponse();
        answer->SetStatus(404);
        SendAnswer(*request, answer);
      }
      return kHandled;
    default:
      return kMeaningless;
  }
}

// The minimal dialect knows of no other answer for what cannot be found.
void ZrTransceiverClient::ServeContent(const std::shared_ptr<ZrXHeader>& request) {
  if (!content_) return;
  try {
    if (content_->ServeRequest(*this, request)) return;
    if (request->method == ZrMethod::kOptions) return AnswerStatus(*request, 204, kAllMethods);
    content_->AnswerNotFound(*this, request);
  } catch (const ZrCannotTell&) {
    if (request->semantics->IsStandard()) return AnswerStatus(*request, 503);
    content_->AnswerNotFound(*this, request);
  }
}

int ZrTransceiverClient::AcceptAnswer(const std::string& name,
                                      const std::shared_ptr<ZrXHeader>& answer) {
  {
    // The name of a message is forgotten with its first answer; a server's stays.
    ZrLock hold(lock_);
    const auto found = ownedNames_.find(name);
    if (found == ownedNames_.end()) return kHandled;
    if (found->second == Owned::kMessage) ownedNames_.erase(found);
  }
  bool accepted = false;
  switch (answer->ProtocolKind()) {
    case zr::kProtocolSocket:
      accepted = AcceptSocketAnswer(name, answer);
      break;
    case zr::kProtocolHttp:
    case zr::kProtocolHttps:
      accepted = AcceptHttpAnswer(name, answer);
      break;
    case zr::kProtocolQuarn:
      accepted = AcceptQuarnAnswer(name, answer);
      break;
    default:
      return kMeaningless;
  }
  return accepted ? kHandled : kMeaningless;
}

bool ZrTransceiverClient::FormCommandStep(const std::shared_ptr<ZrXHeader>& request) {
  if (!IsHttp(request->ProtocolKind())) return false;
  const bool commands = application != nullptr && application->takesCommands();
  // The minimal dialect says what it finds in a body, whoever wants it; but a large one is not
  // taken apart for nobody: its fields would lie in memory beside it.
  if (request->semantics->IsStandard() && !commands) return false;
  // A body that cannot be read as a form leaves the fields of the query.
  if (commands || !request->body || request->body->Size() <= ZrBodyStore::kHeapLimit)
    static_cast<void>(ParseFormBody(*request));
  return RunCommand(request, std::string(zr::FieldText(request->allFields, idField)));
}

bool ZrTransceiverClient::RunCommand(const std::shared_ptr<ZrXHeader>& request,
                                     const std::string& id) {
  ZrCommandHandler* handler = nullptr;
  if (application == nullptr) return false;
  if (id.empty()) {
    if (commandUrl.empty() || commandUrl != request->path) return false;
    handler = application->nullQuery(idField);
    if (handler == nullptr) return false;
  }
  const auto answer = request->MakeResponse();
  const HostCode hostCode;
  try {
    if (handler != nullptr) {
      handler->Request(*request, *answer, "&new");
    } else {
      application->dispatchToHandler(id, *request, *answer,
                                     std::string(zr::FieldText(request->allFields, commandField)));
    }
  } catch (...) {
    return false;
  }
  if (answer->status == kUnansweredStatus) return false;
  SendAnswer(*request, answer);
  return true;
}

bool ZrTransceiverClient::AcceptSocketAnswer(const std::string&,
                                             const std::shared_ptr<ZrXHeader>&) {
  return true;
}

bool ZrTransceiverClient::AcceptHttpAnswer(const std::string&,
                                           const std::shared_ptr<ZrXHeader>& answer) {
  answer->answered = true;
  return true;
}

bool ZrTransceiverClient::AcceptQuarnAnswer(const std::string&, const std::shared_ptr<ZrXHeader>&) {
  return true;
}

// A body that is still to come, and that nobody reads, need not be kept; nor one whose reader takes
// it as it comes.
bool ZrTransceiverClient::OnHeadComplete(ZrXHeader& head) {
  const bool comes = head.reading.chunks || head.BodyState() == ZrReadResult::kIncomplete;
  if (head.kind == ZrMessageKind::kRequest && comes) {
    const bool commands =
        IsHttp(head.ProtocolKind()) && application && application->takesCommands();
    head.bodyUnwanted = !commands && !(content_ && content_->ReadsBody(*this, head));
    // A program is told the length of its input, so one in chunks has to be there first.
    head.bodyFlows = !commands && !head.bodyUnwanted && IsHttp(head.ProtocolKind()) &&
                     head.semantics->IsStandard() && !head.reading.chunks &&
                     content_->StreamsBody(*this, head);
  }
  return true;
}
