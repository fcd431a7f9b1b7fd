// velkoro::Client over the pools of outgoing connections. Answers and failures arrive on threads
// of the library that must not be held up; a thread of the client's follows redirections, calls
// the program's callbacks and knows what is late. It starts with the first request.

#include "velkoro/client.h"

#include <algorithm>
#include <array>
#include <deque>
#include <map>
#include <optional>

#include "embed/address.h"
#include "handlers/request_handler.h"
#include "http/field_list.h"
#include "http/field_syntax.h"
#include "http/form_writer.h"
#include "http/message_head.h"
#include "http/request_target.h"
#include "jobs/scheduler.h"
#include "jobs/threads_rest.h"
#include "platform/sync.h"
#include "platform/thread.h"
#include "servers/protocol_servers.h"
#include "servers/request_pool.h"
#include "transceiver/transceiver.h"

namespace velkoro {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::hours kLongestLimit{24};

struct MethodEntry {
  std::string_view name;
  ZrMethod method;
  bool hasBody;
};
constexpr std::array<MethodEntry, 6> kMethods = {{{"GET", ZrMethod::kGet, false},
                                                  {"HEAD", ZrMethod::kHead, false},
                                                  {"POST", ZrMethod::kPost, true},
                                                  {"PUT", ZrMethod::kPut, true},
                                                  {"PATCH", ZrMethod::kPatch, true},
                                                  {"DELETE", ZrMethod::kDelete, true}}};

zr::RequestAddress AddressOf(const std::string& url) {
  zr::RequestAddress address;
  try {
    address = zr::ReadRequestAddress(url);
  } catch (const zr::AddressError& error) {
    throw ClientError("'" + url + "': " + error.what());
  }
  return address;
}

const MethodEntry& MethodOf(const ClientRequest& request) {
  const bool sends = !request.fields.empty() || !request.body.empty();
  const std::string_view name = !request.method.empty() ? std::string_view(request.method)
                                : sends                 ? "POST"
                                                        : "GET";
  const auto* const known = std::find_if(kMethods.begin(), kMethods.end(),
                                         [name](const MethodEntry& m) { return m.name == name; });
  if (known == kMethods.end())
    throw ClientError("the method must be GET, HEAD, POST, PUT, PATCH or DELETE, not '" +
                      std::string(name) + "'");
  if (sends && !known->hasBody)
    throw ClientError("a " + std::string(name) + " request has no body");
  return *known;
}

bool IsDefaultPort(const zr::RequestAddress& address) {
  return address.port == (address.protocolKind == zr::kProtocolHttps ? 443 : 80);
}

/// scheme://host:port
std::string OriginOf(const zr::RequestAddress& address) {
  std::string text(zr::ProtocolSchemeName(address.protocolKind));
  text.append("://").append(address.host);
  return IsDefaultPort(address) ? text : text + ":" + std::to_string(address.port);
}

/// host:port as the peer knows itself: the zone of an address means something on this machine only.
std::string AuthorityOf(const zr::RequestAddress& address) {
  const std::string origin = OriginOf(address);
  std::string text = origin.substr(origin.find("://") + 3);
  const std::size_t zone = text.starts_with('[') ? text.find('%') : std::string::npos;
  if (zone != std::string::npos) text.erase(zone, text.find(']') - zone);
  return text;
}

std::shared_ptr<ZrXHeader> MakeHead(const ClientRequest& request) {
  const MethodEntry& method = MethodOf(request);
  const zr::RequestAddress address = AddressOf(request.url);
  auto head = zr::MakeJob<ZrXHeader>(method.hasBody ? ZrMessageType::kPost : ZrMessageType::kGet,
                                     address.protocolKind);
  if (address.protocolKind != zr::kProtocolQuarn) head->semantics = &ZrSemantics::Standard();
  head->kind = ZrMessageKind::kRequest;
  head->method = method.method;
  head->host = address.host;
  head->port = static_cast<std::uint64_t>(address.port);
  head->path = address.target;
  head->authority = AuthorityOf(address);
  head->connectOptions.Set("quiet", "yes");
  if (request.verify) head->connectOptions.Set("cacertificate", request.trusted);
  if (!request.fields.empty()) {
    if (!request.body.empty()) throw ClientError("a request has a form or a body, not both");
    zr::SetFormBody(*head, request.fields);
    head->AddField("content-type", "multipart/form-data; boundary=" + head->boundary);
  } else if (method.hasBody) {
    head->body = std::make_unique<ZrStringBuf>(request.body);
    if (!request.type.empty() && !head->AddField("content-type", request.type))
      throw ClientError("no media type: " + request.type);
  }
  for (const auto& [name, value] : request.headers)
    if (!head->AddField(name, value)) throw ClientError("no header field: " + name);
  head->SetState(zr::kHeadStateComplete);
  return head;
}

/// Where a redirection leads; nothing when that makes no sense, or gives up a safe line.
std::optional<std::string> Destination(const std::string& from, std::string_view location) {
  const zr::RequestAddress base = AddressOf(from);
  std::string text;
  const std::size_t mark = location.find_first_of(":/?#");
  if (mark != std::string_view::npos && location[mark] == ':') {
    text = location;  // of whatever scheme
  } else if (location.starts_with("//")) {
    text = std::string(zr::ProtocolSchemeName(base.protocolKind)) + ":" + std::string(location);
  } else {
    std::string path = base.target.substr(0, base.target.find('?'));
    const std::size_t end = std::min(location.find_first_of("?#"), location.size());
    if (location.starts_with('/'))
      path = location.substr(0, end);
    else if (end > 0)
      path.replace(path.rfind('/') + 1, path.npos, location.substr(0, end));
    text = OriginOf(base) + path + std::string(location.substr(end));
  }
  const std::size_t host = text.find("://");
  const std::size_t begin = host == std::string::npos
                                ? text.size()
                                : std::min(text.find_first_of("/?#", host + 3), text.size());
  const std::size_t end = std::min(text.find_first_of("?#", begin), text.size());
  std::string path = text.substr(begin, end - begin);
  zr::RemoveDotSegments(path);
  text.replace(begin, end - begin, path);
  try {
    const zr::RequestAddress to = AddressOf(text);
    const bool safe =
        base.protocolKind != zr::kProtocolHttps || to.protocolKind == zr::kProtocolHttps;
    if (safe && zr::ParseRequestTarget(to.target)) return text;
  } catch (const ClientError&) {
    // The server's fault: its answer is the outcome.
  }
  return std::nullopt;
}

bool IsRedirect(std::uint64_t status) {
  return status == 301 || status == 302 || status == 303 || status == 307 || status == 308;
}

/// The request that asks at the other place.
void Turn(ClientRequest& request, std::uint64_t status, const std::string& to) {
  const bool away = OriginOf(AddressOf(request.url)) != OriginOf(AddressOf(to));
  request.url = to;
  --request.redirects;
  const bool reads = MethodOf(request).name == "GET" || request.method == "HEAD";
  const bool keeps = status == 307 || status == 308 || reads;
  if (!keeps && (status == 303 || MethodOf(request).name == "POST")) {
    request.method = "GET";
    request.fields.clear();
    request.body.clear();
    request.type.clear();
    std::erase_if(request.headers, [](const auto& field) {
      return zr::LowerCase(field.first).starts_with("content-");
    });
  }
  if (away) {
    std::erase_if(
        request.headers,
        [](const auto& field) {
          return zr::EqualsIgnoringCase(field.first, "authorization") ||
                 zr::EqualsIgnoringCase(field.first, "cookie");
        });
  }
}

Outcome OutcomeOf(const ZrXHeader& answer, std::string url) {
  Outcome outcome;
  outcome.status = static_cast<int>(answer.status);
  outcome.url = std::move(url);
  for (const auto& [name, values] : answer.headers) {
    if (name == zr::kFirstLine) continue;
    for (const std::string_view value : values) outcome.headers.emplace_back(name, value);
  }
  if (answer.body) outcome.body = answer.body->Unread();
  return outcome;
}

Outcome Failure(std::string url, ZrSendFailureKind kind, std::string_view detail) {
  Outcome outcome;
  outcome.url = std::move(url);
  outcome.error = zr::SendFailureReason(kind);
  if (!detail.empty()) outcome.error.append(" (").append(detail).append(")");
  return outcome;
}

}  // namespace

std::string Outcome::Header(std::string_view name, std::string_view whenAbsent) const {
  for (const auto& [known, value] : headers)
    if (known == name) return value;
  return std::string(whenAbsent);
}

class [[gnu::visibility("hidden")]] Client::Asking {
 public:
  using Done = std::function<void(Outcome)>;

  Asking()
      : transceiver_(scheduler_, zr::ProtocolServers(zr::OutgoingPools())),
        sender_(zr::MakeJob<Sender>(*this)) {
    transceiver_.AddClient(sender_);
  }
  ~Asking() {
    {
      ZrLock hold(lock_);
      stopping_ = true;
      wake_.NotifyAll();
    }
    transceiver_.StopServers();
    transceiver_.RemoveClient(sender_);
    thread_.Join();
  }
  Asking(const Asking&) = delete;
  Asking& operator=(const Asking&) = delete;

  void Ask(ClientRequest request, Done done) ZR_EXCLUDES(lock_) {
    if (request.timeLimit.count() <= 0) throw ClientError("the time limit is not positive");
    const auto limit = std::min<std::chrono::milliseconds>(request.timeLimit, kLongestLimit);
    const std::shared_ptr<ZrXHeader> head = MakeHead(request);
    bool stopped = false;
    {
      ZrLock hold(lock_);
      stopped = stopping_;
      if (!stopped && !thread_.Joinable()) thread_ = ZrThread::Start("client", [this] { Loop(); });
    }
    // By a callback, while the client ends.
    if (stopped) return done(Failure(request.url, ZrSendFailureKind::kStopped, {}));
    Send(head, {std::move(request), std::move(done), Clock::now() + limit, {}, nullptr});
  }

 private:
  using Due = std::multimap<Clock::time_point, std::string>;
  struct Pending {
    ClientRequest request;
    Done done;
    Clock::time_point due;
    Due::iterator place;
    std::shared_ptr<ZrXHeader> head;  // that is out
  };
  struct Ended {
    Pending pending;
    std::shared_ptr<ZrXHeader> answer;
    Outcome outcome;    // without answer
    bool late = false;  // its request is still out
  };

  /// The handler of the transceiver that takes the answers.
  class Sender final : public ZrTransceiverClient {
   public:
    explicit Sender(Asking& asking)
        : ZrTransceiverClient([](ZrServerCallback_t&) { return true; }, {}, nullptr, nullptr),
          asking_(asking) {}
    bool AcceptHttpAnswer(const std::string& name,
                          const std::shared_ptr<ZrXHeader>& answer) override {
      asking_.End(name, answer, {});
      return ZrTransceiverClient::AcceptHttpAnswer(name, answer);
    }
    bool AcceptQuarnAnswer(const std::string& name,
                           const std::shared_ptr<ZrXHeader>& answer) override {
      asking_.End(name, answer, {});
      return true;
    }
    void MessageFailed(const std::string& name, const ZrSendFailure& failure) override {
      asking_.End(name, nullptr, failure);
    }

   private:
    Asking& asking_;
  };

  void Send(const std::shared_ptr<ZrXHeader>& head, Pending pending) ZR_EXCLUDES(lock_) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(pending.due - Clock::now());
    head->connectOptions.Set("timeout", std::to_string(std::max<std::int64_t>(1, left.count())));
    const std::string name = head->JobName();
    {
      ZrLock hold(lock_);
      pending.place = due_.emplace(pending.due, name);
      pending.head = head;
      if (pending.place == due_.begin()) wake_.NotifyAll();
      pending_.emplace(name, std::move(pending));
    }
    if (sender_->SendMessage(head).empty())
      End(name, nullptr, {ZrSendFailureKind::kStopped, {}, false});
  }

  /// One that was late has ended already.
  void End(const std::string& name, const std::shared_ptr<ZrXHeader>& answer,
           const ZrSendFailure& failure) ZR_EXCLUDES(lock_) {
    ZrLock hold(lock_);
    const auto found = pending_.find(name);
    if (found == pending_.end()) return;
    Ended ended{std::move(found->second), answer, {}};
    due_.erase(ended.pending.place);
    pending_.erase(found);
    if (!answer) ended.outcome = Failure(ended.pending.request.url, failure.kind, failure.detail);
    ended_.push_back(std::move(ended));
    wake_.NotifyAll();
  }

  // The last round comes after the transceiver has told what became of the requests, or has
  // forgotten them.
  void Loop() ZR_EXCLUDES(lock_) {
    for (;;) {
      std::deque<Ended> ended;
      bool last = false;
      {
        ZrLock hold(lock_);
        const auto anything = [this]() ZR_REQUIRES(lock_) { return stopping_ || !ended_.empty(); };
        const auto next = due_.empty() ? Clock::now() + kLongestLimit : due_.begin()->first;
        if (!anything())
          wake_.WaitUntil(lock_, next, [&]() ZR_REQUIRES(lock_) {
            return anything() || due_.empty() || due_.begin()->first < next;
          });
        TakeLate();
        ended.swap(ended_);
        last = stopping_;
      }
      for (Ended& one : ended) Tell(one, last);
      if (last) return;
    }
  }

  void TakeLate() ZR_REQUIRES(lock_) {
    const Clock::time_point now = Clock::now();
    while (!due_.empty() && (stopping_ || due_.begin()->first <= now)) {
      const auto found = pending_.find(due_.begin()->second);
      due_.erase(due_.begin());
      Ended ended{std::move(found->second), nullptr, {}, !stopping_};
      pending_.erase(found);
      ended.outcome = stopping_
                          ? Failure(ended.pending.request.url, ZrSendFailureKind::kStopped, {})
                          : Failure(ended.pending.request.url, ZrSendFailureKind::kTimedOut,
                                    "no answer within the time limit");
      ended_.push_back(std::move(ended));
    }
  }

  void Tell(Ended & ended, bool last) ZR_EXCLUDES(lock_) {
    Pending& pending = ended.pending;
    if (ended.late) Withdraw(pending);
    try {
      if (ended.answer && !last && Follow(ended)) return;
      if (ended.answer) ended.outcome = OutcomeOf(*ended.answer, pending.request.url);
      pending.done(std::move(ended.outcome));
    } catch (...) {
      // The program's own failure, or memory ran out; a future then says that its promise broke.
    }
  }

  // Its connection would stay with a peer that says nothing, and ten of them are all there are.
  void Withdraw(const Pending& pending) noexcept {
    try {
      transceiver_.OutgoingRequests().Withdraw(sender_->JobName(), pending.head);
    } catch (...) {
      // Without memory it stays until its own time limit.
    }
  }

  bool Follow(Ended & ended) ZR_EXCLUDES(lock_) {
    const ZrXHeader& answer = *ended.answer;
    ClientRequest& request = ended.pending.request;
    if (request.redirects <= 0 || !IsRedirect(answer.status)) return false;
    const auto to = Destination(request.url, answer.headers.First("location"));
    if (!to) return false;
    Turn(request, answer.status, *to);
    const std::shared_ptr<ZrXHeader> head = MakeHead(request);
    Send(head, std::move(ended.pending));
    return true;
  }

  const ZrThreadsRest rest_;
  ZrMutex lock_;                                                 // never held while calling out
  std::map<std::string, Pending> pending_ ZR_GUARDED_BY(lock_);  // by the names of their heads
  Due due_ ZR_GUARDED_BY(lock_);
  std::deque<Ended> ended_ ZR_GUARDED_BY(lock_);
  bool stopping_ ZR_GUARDED_BY(lock_) = false;
  ZrCondition wake_;  // one of them changed
  ZrThread thread_;   // started under lock_, joined by the destructor

  ZrRinvalScheduler2 scheduler_;
  ZrTransceiver transceiver_;
  const std::shared_ptr<Sender> sender_;
};

Client::Client() : asking_(std::make_unique<Asking>()) {}

Client::~Client() = default;

std::future<Outcome> Client::Ask(ClientRequest request) {
  const auto promise = std::make_shared<std::promise<Outcome>>();
  std::future<Outcome> coming = promise->get_future();
  asking_->Ask(std::move(request),
               [promise](Outcome outcome) { promise->set_value(std::move(outcome)); });
  return coming;
}

void Client::Ask(ClientRequest request, std::function<void(Outcome)> done) {
  if (!done) throw ClientError("nobody takes the outcome");
  asking_->Ask(std::move(request), std::move(done));
}

namespace {

// Ended with the process; in a fork of it there is nothing to end.
Client& SharedClient() {
  struct Holder {
    Holder() : client(new Client) {}
    Holder(const Holder&) = delete;
    Holder& operator=(const Holder&) = delete;
    ~Holder() {
      if (!zr::IsForkOfThreads()) delete client;
    }
    Client* const client;
  };
  static const Holder holder;
  return *holder.client;
}

}  // namespace

std::future<Outcome> Ask(ClientRequest request) { return SharedClient().Ask(std::move(request)); }

void Ask(ClientRequest request, std::function<void(Outcome)> done) {
  SharedClient().Ask(std::move(request), std::move(done));
}

}  // namespace velkoro
