#include "embed/exchange.h"

#include <algorithm>
#include <exception>
#include <stdexcept>
#include <utility>

#include "base/number.h"
#include "handlers/request_handler.h"
#include "handlers/served_files.h"
#include "handlers/standard_files.h"
#include "http/form_body.h"
#include "platform/file.h"

namespace {

constexpr int kInternalError = 500;
constexpr int kUnavailable = 503;
constexpr std::uint64_t kUnset = 0;

}  // namespace

/// Called once, by the peer's watch or when the exchange is given up.
struct velkoro::Exchange::Action {
  explicit Action(std::function<void()> code) : run(std::move(code)) {}
  void Call() {
    if (called.exchange(true)) return;
    try {
      run();
    } catch (...) {
      // Its own failure.
    }
  }
  const std::function<void()> run;
  std::atomic<bool> called{false};
};

/// What the writer of a stream waits for.
struct velkoro::Exchange::Room {
  /// Until there is room, or nobody to make any.
  void Wait() ZR_EXCLUDES(lock) {
    ZrLock hold(lock);
    changed.Wait(lock, [this]() ZR_REQUIRES(lock) { return there || over; });
    there = false;
  }
  void Tell(bool end) ZR_EXCLUDES(lock) {
    ZrLock hold(lock);
    (end ? over : there) = true;
    changed.NotifyAll();
  }
  bool Over() ZR_EXCLUDES(lock) {
    ZrLock hold(lock);
    return over;
  }
  ZrMutex lock;
  ZrCondition changed;
  bool there ZR_GUARDED_BY(lock) = false;
  bool over ZR_GUARDED_BY(lock) = false;
};

velkoro::Exchange::Exchange(std::shared_ptr<ZrHandlers> handlers, ZrTransceiverClient& client,
                            std::shared_ptr<ZrXHeader> request, ZrRouteTable::Match match)
    : handlers_(std::move(handlers)),
      client_(client),
      request_(std::move(request)),
      match_(std::move(match)),
      asked_(*this),
      answer_(*this),
      later_(*this) {}

// ---- The request -------------------------------------------------------------------------------

ZrXHeader& velkoro::Exchange::AskedWithForm() {
  // A body that cannot be read as a form leaves the fields of the query.
  if (!std::exchange(formRead_, true)) static_cast<void>(ParseFormBody(*request_));
  return *request_;
}

std::string velkoro::Exchange::PathValue(std::string_view name) const {
  if (match_.route != nullptr) {
    const std::vector<std::string>& names = match_.route->names;
    const auto found = std::find(names.begin(), names.end(), name);
    if (found != names.end())
      return std::string(match_.values.at(static_cast<std::size_t>(found - names.begin())));
  }
  throw std::logic_error("the route has no piece {" + std::string(name) + "}");
}

bool velkoro::Exchange::Gone() const {
  return givenUp_ || (request_->peerWatch && request_->peerWatch->Ended());
}

bool velkoro::Exchange::Unreachable() const {
  return givenUp_ || (request_->peerWatch && request_->peerWatch->Gone());
}

void velkoro::Exchange::OnGone(std::function<void()> action) {
  const auto kept = std::make_shared<Action>([handlers = handlers_, code = std::move(action)] {
    const ZrHandlerPool::Caller caller(handlers->pool);
    code();
  });
  {
    ZrLock hold(goneLock_);
    onGone_ = kept;
  }
  peer_ = ZrPeerSubscription(
      request_->peerWatch, [kept] { kept->Call(); }, ZrPeerWatch::State::kEnded);
  if (Gone()) kept->Call();
}

void velkoro::Exchange::TellGone() {
  std::shared_ptr<Action> action;
  std::function<void()> stop;
  {
    ZrLock hold(goneLock_);
    action = std::move(onGone_);
    stop = onStop_;
  }
  if (stop) stop();
  if (action) action->Call();
}

void velkoro::Exchange::OnStop(std::function<void()> action) {
  ZrLock hold(goneLock_);
  onStop_ = std::move(action);
}

// ---- The answer --------------------------------------------------------------------------------

ZrXResponseHeader& velkoro::Exchange::Reply() {
  if (sent_) throw std::logic_error("the answer was sent already");
  return *reply_;
}

void velkoro::Exchange::SetStatus(int status) {
  const auto code = static_cast<std::uint64_t>(status);
  if (status < 200 || status > 599)
    throw std::invalid_argument("no status of an answer: " + std::to_string(status));
  Reply().status = code;
  statusSet_ = true;
}

void velkoro::Exchange::SetBody(std::string bytes, std::string_view type) {
  ZrXResponseHeader& reply = Reply();
  reply.filePath.clear();
  reply.bodyFile = nullptr;
  reply.contentLength = 0;
  reply.body = std::make_unique<ZrStringBuf>(std::move(bytes));
  if (!reply.SetField("content-type", type))
    throw std::invalid_argument("no media type: " + std::string(type));
}

void velkoro::Exchange::SetFile(const std::string& path) {
  ZrXResponseHeader& reply = Reply();
  const std::shared_ptr<const ZrFile> file = ZrFile::Open(path);
  if (!file || !file->IsRegular()) {
    reply.body = nullptr;
    return SetStatus(404);
  }
  if (request_->semantics->IsStandard()) {
    zr::AnswerWithFile(*request_, reply, path, {.found = {.file = file}}, *handlers_->site);
    reply.UnfoldReadyFields();  // the handler may give it others
  } else {
    reply.status = 200;
    reply.SetFileBody(file, file->Size());
  }
  statusSet_ = true;
}

void velkoro::Exchange::Defer() {
  if (deferred_) throw std::logic_error("the answer is deferred already");
  Reply();
  deferred_ = true;
}

bool velkoro::Exchange::Send() {
  if (!Claim()) return false;
  bool sent = false;
  Conclude([&] {
    try {
      Complete();
    } catch (const std::exception& failure) {
      LogFailure(failure.what());
      AnswerWith(kInternalError, {});
    } catch (...) {
      LogFailure("an exception of unknown type");
      AnswerWith(kInternalError, {});
    }
    sent_ = true;
    sent = !Unreachable();  // one that ended its side has the connection closed behind the answer
    client_.SendAnswer(*request_, reply_);
  });
  return sent;
}

// What the handler left open.
void velkoro::Exchange::Complete() {
  const bool standard = request_->semantics->IsStandard();
  const bool hasBody = reply_->body || reply_->HasFileBody();
  if (!statusSet_) reply_->status = standard && !hasBody ? 204 : 200;
  if (standard && !hasBody && reply_->status >= 400) {
    const std::uint64_t status = reply_->status;
    zr::AnswerWithPage(*request_, *reply_, status, *handlers_->site);
  }
  for (const Server::Witness& witness : handlers_->witnesses) witness(asked_, answer_);
}

// In the place of what the handler may have begun.
void velkoro::Exchange::AnswerWith(int status, std::string_view sentence) {
  reply_ = request_->MakeResponse();
  statusSet_ = true;
  if (!sentence.empty()) SetBody(std::string(sentence) + "\n", "text/plain; charset=utf-8");
  reply_->status = static_cast<std::uint64_t>(status);
}

void velkoro::Exchange::Fail() {
  if (Claim()) Conclude([this] { client_.AnswerStatus(*request_, kInternalError); });
}

void velkoro::Exchange::Drop() noexcept {
  if (!Claim()) return;
  Conclude([this] {
    if (!Gone()) LogFailure("the deferred answer was never sent");
    client_.AnswerStatus(*request_, kInternalError);
  });
}

// A stream is not late once it has begun: its writer is only told when the server stops.
void velkoro::Exchange::GiveUp() {
  if (!Claim()) {
    if (!handlers_->pool.IsClosing()) return;
    givenUp_ = true;
    return TellGone();
  }
  givenUp_ = true;
  Conclude([this] {
    client_.AnswerStatus(*request_, kUnavailable);
    TellGone();
  });
}

// Whatever fails, memory in effect, the exchange is over: its connection ends with its peer.
template <class Act>
void velkoro::Exchange::Conclude(Act act) noexcept {
  try {
    act();
  } catch (...) {
    // See above.
  }
  handlers_->pool.Done(*this);
}

// ---- The stream --------------------------------------------------------------------------------

void velkoro::Exchange::CheckBegin(const Answer& by) const {
  if (deferred_ && &by == &answer_) throw std::logic_error("the answer is deferred already");
}

// Its writer hears of the end like a program that asked for OnGone().
void velkoro::Exchange::BeginStream() {
  Reply();
  room_ = std::make_shared<Room>();
  const bool first = Claim();
  sent_ = true;
  if (!first) return room_->Tell(true);
  try {
    BeginBody();
    streaming_ = true;
  } catch (...) {
    Conclude([this] {
      if (!stream_ || !stream_->Begun()) client_.AnswerStatus(*request_, kInternalError);
      stream_ = nullptr;
    });
    throw;
  }
}

void velkoro::Exchange::BeginBody() {
  reply_->body = std::make_unique<ZrStringBuf>();
  Complete();
  if (!request_->semantics->IsStandard()) return;
  reply_->body = nullptr;
  const auto length = zr::ParseDigits(reply_->headers.First("content-length"));
  reply_->lengthKnown = length.has_value();
  reply_->contentLength = length.value_or(0);
  const auto tell = [room = std::weak_ptr<Room>(room_)](bool end) {
    if (const std::shared_ptr<Room> kept = room.lock()) kept->Tell(end);
  };
  OnStop([tell] { tell(true); });
  stream_ = client_.OpenAnswer(*request_, {[tell] { tell(false); }, [tell] { tell(true); }});
  if (!stream_->Begin(reply_) || Unreachable()) room_->Tell(true);
}

bool velkoro::Exchange::WriteStream(std::string_view piece) {
  if (!stream_) {
    if (streaming_) reply_->body->Append(piece);
    return streaming_ && !Unreachable();
  }
  if (Unreachable() || room_->Over() || !stream_->Write(piece)) return false;
  while (!room_->Over() && stream_->MustWait()) room_->Wait();
  return !room_->Over();
}

void velkoro::Exchange::EndStream(bool whole) noexcept {
  if (!std::exchange(streaming_, false)) return;
  Conclude([&] {
    if (!stream_)
      client_.SendAnswer(*request_, whole ? reply_ : request_->MakeResponse());
    else if (whole && !givenUp_)
      stream_->End();
    else
      stream_->Abort();
    stream_ = nullptr;
  });
}

// ---- The run -----------------------------------------------------------------------------------

void velkoro::Exchange::Run() {
  try {
    if (!Unreachable()) return RunHandler();
    if (Claim()) Conclude([] {});
    return;
  } catch (const std::exception& failure) {
    LogFailure(failure.what());
  } catch (...) {
    LogFailure("an exception of unknown type");
  }
  Fail();
}

void velkoro::Exchange::RunHandler() {
  reply_ = request_->MakeResponse();
  reply_->status = kUnset;
  try {
    Handle();
  } catch (const RequestError& refusal) {
    if (deferred_ || sent_) throw;
    AnswerWith(refusal.Status(), refusal.what());
    Send();
  }
}

void velkoro::Exchange::Handle() {
  const Server::Handler* handler = nullptr;
  bool passed = AskGuards();
  if (passed) {
    handler = FindHandler();
    if (handler == nullptr) return LeaveToOthers();
    for (const ZrHandlers::Guard& guard : handlers_->guards) passed = passed && Passes(guard);
  }
  if (passed) (*handler)(asked_, answer_);
  if (!deferred_) Send();
}

bool velkoro::Exchange::Passes(const ZrHandlers::Guard& guard) {
  if (!guard.ask(asked_, answer_)) return false;
  if (deferred_)
    throw std::logic_error("a function before the handlers deferred the answer and let it pass");
  return true;
}

bool velkoro::Exchange::AskGuards() {
  for (const ZrHandlers::Guard& guard : handlers_->paths)
    if (guard.Covers(request_->path) && !Passes(guard)) return false;
  return true;
}

const velkoro::Server::Handler* velkoro::Exchange::FindHandler() {
  if (match_.route != nullptr) return &match_.route->handler;
  if (handlers_->commands.empty()) return nullptr;
  const auto found =
      handlers_->commands.find(zr::FieldText(AskedWithForm().allFields, client_.idField));
  return found == handlers_->commands.end() ? nullptr : &found->second;
}

// No handler's: a method that the routes do not know, a file, or nothing.
void velkoro::Exchange::LeaveToOthers() {
  if (!Claim()) return;
  Conclude([this] {
    if (match_.allowed == 0)
      client_.AnswerUntaken(request_);
    else
      AnswerForMethod(client_, *request_, match_.allowed);
  });
}

void velkoro::Exchange::AnswerForMethod(ZrTransceiverClient& client, const ZrXHeader& request,
                                        ZrRouteTable::Methods allowed) {
  client.AnswerStatus(request, request.method == ZrMethod::kOptions ? 204 : 405,
                      ZrRouteTable::AllowText(allowed));
}

void velkoro::Exchange::LogFailure(const char* what) {
  if (!handlers_->failed) return;
  std::string line = match_.route != nullptr ? match_.route->pattern : "a command";
  // A program's exception may have no text.
  handlers_->failed(line.append(": ").append(what == nullptr ? "an exception without text" : what));
}
