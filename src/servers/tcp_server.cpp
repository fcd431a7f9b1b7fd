#include "servers/tcp_server.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "base/exception.h"
#include "base/line_writer.h"
#include "base/number.h"
#include "http/server_head.h"
#include "jobs/job_event.h"
#include "jobs/scheduler.h"
#include "net/tcp_socket.h"
#include "platform/system.h"
#include "transceiver/connection.h"
#include "transceiver/transceiver.h"

namespace {

// Peers beyond it are accepted and closed, so that they know at once. An eighth of the descriptors
// stays free for the files that are sent and for the host's own use.
std::size_t ConnectionCap() {
  const std::size_t limit = zr::DescriptorLimit();
  return limit - limit / 8 - std::min<std::size_t>(limit / 4, 32);
}

int PortNumber(const std::string& text) {
  return static_cast<int>(
      std::min<std::uint32_t>(zr::ParseUnsignedLong(text), std::numeric_limits<int>::max()));
}

using std::chrono::milliseconds;
using std::chrono::steady_clock;

// Connecting and the TLS handshake together, unless the target head says otherwise.
constexpr milliseconds kStartLimit{80'000};

milliseconds StartLimit(const ZrXHeader& target) {
  const auto limit = zr::ParseDigits(target.connectOptions.Get("timeout"));
  if (!limit || *limit > static_cast<std::uint64_t>(kStartLimit.count())) return kStartLimit;
  return milliseconds(*limit);
}

ZrSendFailureKind KindOf(ZrConnectFailure failure) {
  switch (failure) {
    case ZrConnectFailure::kNoHost:
      return ZrSendFailureKind::kNoHost;
    case ZrConnectFailure::kRefused:
      return ZrSendFailureKind::kRefused;
    case ZrConnectFailure::kTimedOut:
    case ZrConnectFailure::kCancelled:
      return ZrSendFailureKind::kTimedOut;
    case ZrConnectFailure::kNone:
    case ZrConnectFailure::kOther:
      break;
  }
  return ZrSendFailureKind::kNotSent;
}

struct Host {
  const std::string& type;
  const std::string& name;
  std::string port;
};

ZrOptionMap HostRecord(Host host) {
  ZrOptionMap record;
  record.Set("type", host.type);
  record.Set("hoststring", host.name);
  record.Set("port", std::move(host.port));
  return record;
}

}  // namespace

ZrTransceiverServerL0Socket::ZrTransceiverServerL0Socket(
    ZrServerSetup setup, std::shared_ptr<ZrXServerHeader> configuration)
    : ZrTransceiverServerL0(setup),
      configuration_(std::move(configuration)),
      type_(std::move(setup.type)),
      connectionCap_(ConnectionCap()),
      running_(true) {
  poller_.emplace();
}

ZrTransceiverServerL0Socket::ZrTransceiverServerL0Socket(ZrServerSetup setup,
                                                         std::shared_ptr<ZrXHeader> target)
    : ZrTransceiverServerL0(setup),
      target_(std::move(target)),
      type_(std::move(setup.type)),
      connectionCap_(ConnectionCap()),
      running_(false) {
  persistent_ = false;
}

ZrTransceiverServerL0Socket::~ZrTransceiverServerL0Socket() = default;

std::string ZrTransceiverServerL0Socket::Option(std::string_view name,
                                                std::string_view defaultValue) const {
  return configuration_ ? configuration_->GetOption(name, defaultValue) : std::string(defaultValue);
}

bool ZrTransceiverServerL0Socket::start() {
  if (!StartQueue()) {
    if (!persistent_) return FailStart(ZrSendFailureKind::kNotSent, "there is no thread left");
    throw ZrException("the system has no thread for the server");
  }
  if (!persistent_) return StartConnecting();
  ZrRinvalTaskDescription description;
  description.name = "ZrTransceiverServerL0" + type_ + JobName();
  description.stopAction = [this] { ZrTransceiverServerL0Socket::stop(); };
  ZrLock hold(stopLock_);
  if (!Running() || listenerTask_ != 0) return false;
  listenerTask_ = Scheduler().Submit(
      [this](ZrRinvalJobParametersAndResult* record) {
        listenerBegan_ = true;
        try {
          AcceptLoop();
        } catch (const std::exception& failure) {
          // The configuration is unusable, or there is no callback: this server serves no peers.
          // It stays, so that its owner can take it out.
          zr::WriteErrorLine("server " + JobName() + " (" + type_ + "): " + failure.what());
        } catch (...) {
          zr::WriteErrorLine("server " + JobName() + " (" + type_ + "): failed");
        }
        return record;
      },
      nullptr, description);
  // Done without having begun: there is no thread for it.
  if (!Scheduler().IsDone(listenerTask_) || listenerBegan_ || !Running()) return true;
  Scheduler().FetchResult(std::exchange(listenerTask_, 0));
  throw ZrException("the system has no thread for the server");
}

void ZrTransceiverServerL0Socket::stop() {
  startStopped_ = true;
  ZrLock hold(stopLock_);
  running_ = false;
  stopped_.NotifyAll();
  if (poller_) poller_->Wake();
}

void ZrTransceiverServerL0Socket::EndTasks() {
  ZrTransceiverServerL0Socket::stop();
  std::uint64_t task = 0;
  {
    ZrLock hold(stopLock_);
    task = std::exchange(listenerTask_, 0);
  }
  if (task != 0) {
    Scheduler().WaitDone(task);
    Scheduler().FetchResult(task);
  }
  ZrTransceiverServerL0::EndTasks();
}

void ZrTransceiverServerL0Socket::Pause(std::chrono::milliseconds time) {
  ZrLock hold(stopLock_);
  stopped_.WaitFor(stopLock_, time, [this] { return !Running(); });
}

// ---- Listening ---------------------------------------------------------------------------------

void ZrTransceiverServerL0Socket::AcceptLoop() {
  ZrSocketIPvx listener(0);
  listener.setQuiet(!configuration_->GetOption("quiet").empty());
  ZrServerCallback_t record;
  if (!Listen(listener, record)) return;
  for (const int descriptor : {listener.primaryDescriptor(), listener.secondaryDescriptor()})
    if (descriptor >= 0 && !poller_->Add(descriptor, 0, ZrInterest::kRead))
      throw ZrException("the system cannot watch the listening socket");
  record.kind = ZrServerCallback_t::kListening;
  TellOwner(record);
  while (Running()) {
    poller_->Wait(std::chrono::nanoseconds(-1));
    try {
      AcceptWaiting(listener, record);
    } catch (...) {
      // Out of memory, in effect, or the owner's callback failed: one peer is lost, not the server.
      Pause(kExhaustedPause);
    }
  }
  for (const int descriptor : {listener.primaryDescriptor(), listener.secondaryDescriptor()})
    if (descriptor >= 0) poller_->Remove(descriptor);
}

bool ZrTransceiverServerL0Socket::Listen(ZrSocketIPvx& listener, ZrServerCallback_t& record) {
  int port = PortNumber(configuration_->GetOption("tcp_port", "2098"));
  const std::string address = configuration_->GetOption("tcp_address", "127.0.0.1");
  const bool everywhere = configuration_->GetOption("bind") != "address";
  const auto listen = [&] {
    const ZrSocketResult result = everywhere
                                      ? listener.listen(address, port, kBacklog)
                                      : listener.listenAt(std::string(zr::BareHost(address)), port,
                                                          kBacklog, [this] { return !Running(); });
    const bool done = result == ZrSocketResult::kSuccess;
    if (!done && !everywhere) record.info.Set("reason", listener.listenErrorText());
    return done;
  };
  bool listening = listen();
  record.kind = ZrServerCallback_t::kBindFailed;
  record.info.Set("address", address);
  record.info.Set("port", std::to_string(port));
  record.info.Set("ID", JobName());
  record.info.Set("protocolstring", std::string(configuration_->SchemeName()));
  while (!listening && Running()) {
    TellOwner(record);
    Pause(kBindRetry);
    if (!Running()) return false;
    listening = listen();
    record.info.Set("port", std::to_string(port));
  }
  return listening && Running();
}

// Takes everybody who waits: one wake-up of this task serves a burst of peers.
void ZrTransceiverServerL0Socket::AcceptWaiting(ZrSocketIPvx& listener,
                                                const ZrServerCallback_t& listening) {
  const auto everyone = [](ZrHostInfo_t&) { return true; };
  std::shared_ptr<ZrSocketIPvx> prepared;
  while (Running()) {
    if (!prepared) prepared = std::make_shared<ZrSocketIPvx>(1);
    if (listener.accept(*prepared, 0, everyone) < 0) {
      const ZrAcceptStatus status = listener.lastAccept();
      if (status == ZrAcceptStatus::kExhausted || status == ZrAcceptStatus::kFailed)
        Pause(kExhaustedPause);
      return;
    }
    TakePeer(std::exchange(prepared, nullptr), listening);
  }
}

void ZrTransceiverServerL0Socket::TakePeer(std::shared_ptr<ZrSocketIPvx> socket,
                                           const ZrServerCallback_t& listening) {
  ZrTransceiver* const transceiver = Transceiver();
  const std::string host = PeerText(socket->peerAddress());
  const std::string port = socket->peerPort();
  if (transceiver == nullptr || !configuration_->AcceptsPeer(HostRecord({type_, host, port})) ||
      transceiver->ConnectionCount() >= connectionCap_)
    return;
  ZrServerCallback_t record;
  record.kind = ZrServerCallback_t::kConnectionAccepted;
  record.info.Set("remoteaddress", host);
  record.info.Set("remoteport", port);
  record.info.Set("ID", JobName());
  record.info.Set("localaddress", listening.info.Get("address"));
  record.info.Set("localport", listening.info.Get("port"));
  record.info.Set("localprotocolstring", listening.info.Get("protocolstring"));
  socket->setQuiet(configuration_->GetOption("quiet") == "peers");
  try {
    transceiver->AddConnection(socket, createConnection(*transceiver, JobName(), record, socket));
  } catch (const std::exception&) {
    return;  // no connection can be made for this peer (TLS without a context): it is closed
  }
  TellOwner(record);
}

// ---- Connecting --------------------------------------------------------------------------------

ZrSendFailure ZrTransceiverServerL0Socket::StartFailure() const {
  ZrLock hold(lock_);
  return startFailure_;
}

bool ZrTransceiverServerL0Socket::FailStart(ZrSendFailureKind kind, std::string detail) {
  ZrLock hold(lock_);
  startFailure_ = {kind, std::move(detail)};
  if (startStopped_) startFailure_ = {ZrSendFailureKind::kStopped};
  return false;
}

bool ZrTransceiverServerL0Socket::HasExpired() {
  ZrTransceiver* const transceiver = Transceiver();
  if (!persistent_ && transceiver != nullptr) {
    const auto connection = OwnConnection();
    if (connection && connection->NextExpiryNs() > transceiver->Clock().MonotonicNs()) Touch();
  }
  return ZrTransceiverServerL0::HasExpired();
}

bool ZrTransceiverServerL0Socket::IsStartCancelled() const {
  return startStopped_ || steady_clock::now().time_since_epoch().count() >= startDeadline_;
}

bool ZrTransceiverServerL0Socket::StartConnecting() {
  ZrTransceiver* const transceiver = Transceiver();
  if (!target_ || transceiver == nullptr)
    return FailStart(ZrSendFailureKind::kNotSent, "there is no target");
  const milliseconds limit = StartLimit(*target_);
  startDeadline_ = (steady_clock::now() + limit).time_since_epoch().count();
  auto socket = std::make_shared<ZrSocketIPvx>(0);
  socket->setQuiet(target_->connectOptions.Has("quiet"));
  const int port =
      static_cast<int>(std::min<std::uint64_t>(target_->port, std::numeric_limits<int>::max()));
  if (socket->connect(zr::BareHost(target_->host), port,
                      std::min(limit, ZrSocketIPvx::kConnectLimit),
                      [this] { return IsStartCancelled(); }) != ZrSocketResult::kSuccess ||
      socket->primaryDescriptor() < 0) {
    const ZrSendFailureKind kind = KindOf(socket->connectFailure());
    if (kind == ZrSendFailureKind::kRefused) return FailStart(kind, {});
    const bool late = kind == ZrSendFailureKind::kTimedOut;
    return FailStart(kind, late ? "no connection" : socket->connectErrorText());
  }
  ZrServerCallback_t record;
  record.kind = ZrServerCallback_t::kConnectionOpened;
  record.info = HostRecord({type_, target_->host, std::to_string(target_->port)});
  try {
    const auto connection = createConnection(*transceiver, JobName(), std::move(record), socket);
    transceiver->AddConnection(socket, connection);
    SetOwnConnection(connection);
    return true;
  } catch (const ZrConnectionFailure& failure) {
    // A line here would be noise for every worker.
    return FailStart(failure.kind, failure.what());
  } catch (const std::exception& problem) {
    return FailStart(ZrSendFailureKind::kNotSent, problem.what());
  } catch (...) {
    return FailStart(ZrSendFailureKind::kNotSent, "the connection could not be made");
  }
}

void ZrTransceiverServerL0Socket::ReportUnanswered(const ZrSendFailure& failure) {
  ZrTransceiver* const transceiver = Transceiver();
  if (transceiver == nullptr) return;
  ZrJobEvent event;
  event.jobName = JobName();
  event.code = kZrEventUnanswered;
  event.fields = {{"reason", std::string(zr::SendFailureReason(failure.kind))},
                  {"error", failure.detail}};
  if (failure.mayResend) event.fields["resend"] = "yes";
  transceiver->PostEvent(OwnerName(), std::move(event));
}

std::shared_ptr<ZrTransceiverConnection> ZrTransceiverServerL0Socket::createConnection(
    ZrTransceiver& transceiver, const std::string& serverName, ZrServerCallback_t record,
    const std::shared_ptr<ZrSocketIPvx>&) {
  return zr::MakeJob<ZrTransceiverConnection>(
      transceiver, serverName, OwnerName(), std::move(record),
      [](ZrTransceiver& owner, ZrTransceiverConnection* connection) {
        owner.FinishConnection(*connection);
      });
}
