#include "transceiver/io_loops.h"

#include <chrono>
#include <utility>

#include "base/workbench.h"
#include "jobs/scheduler.h"
#include "net/tcp_socket.h"
#include "platform/socket.h"
#include "transceiver/connection.h"
#include "transceiver/housekeeper.h"
#include "transceiver/receive_pass.h"
#include "transceiver/stop_progress.h"

namespace {

constexpr std::chrono::nanoseconds kForEver{-1};
// Out-of-band data is no part of any protocol here; it is watched for to be dropped.
constexpr unsigned kInput = ZrInterest::kRead | ZrInterest::kUrgent;

}  // namespace

ZrIoLoops::ZrIoLoops(ZrRinvalScheduler2& scheduler, ZrHousekeeper& housekeeper,
                     ZrStopProgress& progress, const ZrClock& clock, std::string name,
                     std::uint64_t memoryLimit, Remove remove)
    : scheduler_(scheduler),
      housekeeper_(housekeeper),
      progress_(progress),
      clock_(clock),
      name_(std::move(name)),
      remove_(std::move(remove)),
      memory_(std::make_shared<ZrMemoryBudget>(memoryLimit, [bell = bell_] { bell->Ring(); })) {}

// ---- Registration ------------------------------------------------------------------------------

bool ZrIoLoops::Register(std::shared_ptr<ZrSocketIPvx> socket,
                         const std::shared_ptr<ZrTransceiverConnection>& connection) {
  const int descriptor = socket->primaryDescriptor();
  if (descriptor < 0) return false;
  auto registration = std::make_shared<ZrIoRegistration>();
  registration->socket = std::move(socket);
  registration->connection = connection;
  // A handshake that was made before may have read more than its own bytes.
  const bool buffered = connection->HasBufferedInput();
  // Held until the socket is watched, so that a removal at this moment comes after it.
  ZrLock writing(connection->Lock());
  {
    ZrLock hold(lock_);
    if (!StartJobs()) return false;
    registration->token = ++lastToken_;
    if (buffered) resumed_.push_back(registration->token);
    byToken_.emplace(registration->token, registration);
  }
  connection->Bind(registration);
  if (receivePoller_.Add(descriptor, registration->token, kInput)) {
    if (buffered) receivePoller_.Wake();
    return true;
  }
  connection->Bind(nullptr);
  ZrLock hold(lock_);
  byToken_.erase(registration->token);
  return false;
}

ZrIoLoops::Registration ZrIoLoops::Unregister(ZrTransceiverConnection& connection) {
  connection.PeerWatch()->MarkGone();
  Registration registration;  // goes without the locks, and the socket with it
  ZrLock writing(connection.Lock());
  registration = connection.Bind(nullptr);
  if (!registration) return nullptr;
  receivePoller_.Remove(registration->socket->primaryDescriptor());
  WatchOutput(*registration, false);
  connection.DropQueue();
  ZrLock hold(lock_);
  byToken_.erase(registration->token);
  return registration;
}

// ---- The two jobs ------------------------------------------------------------------------------

bool ZrIoLoops::StartJobs() {
  if (stopped_) return false;
  if (receiveJob_ == 0) {
    receiveJob_ =
        Submit("ZrTransceiver_tcp_rcv", &ZrIoLoops::ReceiveLoop, receiving_, receivePoller_);
  }
  if (sendJob_ == 0)
    sendJob_ = Submit("ZrTransceiver_tcp_snd", &ZrIoLoops::SendLoop, sending_, sendPoller_);
  return receiveJob_ != 0 && sendJob_ != 0;
}

// 0: there is no thread for it. That is so when the task is done already, as it runs until it is
// told to stop.
std::uint64_t ZrIoLoops::Submit(const std::string& name, void (ZrIoLoops::*loop)(),
                                std::atomic<bool>& running, ZrPoller& poller) {
  running = true;
  ZrRinvalTaskDescription description;
  description.name = name + name_;
  description.stopAction = [&running, &poller] {
    running = false;
    poller.Wake();
  };
  const std::uint64_t task = scheduler_.Submit(
      [this, loop](ZrRinvalJobParametersAndResult* record) {
        (this->*loop)();
        return record;
      },
      nullptr, description);
  if (!scheduler_.IsDone(task)) return task;
  scheduler_.FetchResult(task);
  return 0;
}

void ZrIoLoops::Stop() {
  receiving_ = false;
  sending_ = false;
  decltype(byToken_) registrations;  // go without the lock
  {
    ZrLock hold(lock_);
    stopped_ = true;
    registrations.swap(byToken_);
  }
  for (const auto& [token, registration] : registrations) {
    registration->connection->BeginClosing();
    Unregister(*registration->connection);
  }
  receivePoller_.Wake();
  sendPoller_.Wake();
}

void ZrIoLoops::WaitForEnd() {
  std::uint64_t receiveJob = 0;
  std::uint64_t sendJob = 0;
  {
    ZrLock hold(lock_);
    receiveJob = std::exchange(receiveJob_, 0);
    sendJob = std::exchange(sendJob_, 0);
  }
  for (const std::uint64_t job : {receiveJob, sendJob}) {
    if (job == 0) continue;
    scheduler_.WaitDone(job);
    scheduler_.FetchResult(job);
  }
}

void ZrIoLoops::Resolve(std::span<const ZrReadiness> events, std::vector<Ready>& ready,
                        bool resumed) {
  ZrLock hold(lock_);
  for (const ZrReadiness& event : events) {
    const auto found = byToken_.find(event.token);
    if (found != byToken_.end()) ready.push_back({found->second, event.urgent, event.hangup});
  }
  if (!resumed) return;
  for (const std::uint64_t token : resumed_) {
    const auto found = byToken_.find(token);
    if (found != byToken_.end()) ready.push_back({found->second, false});
  }
  resumed_.clear();
}

// ---- Input -------------------------------------------------------------------------------------

void ZrIoLoops::ReceiveLoop() {
  std::vector<Ready> ready;
  std::vector<Ready> again;  // have input of their own, whatever their sockets say
  const ZrWorkbench workbench;
  ZrReceivePass pass;
  while (receiving_) {
    const auto events =
        receivePoller_.Wait(again.empty() ? pass.Patience() : std::chrono::nanoseconds(0));
    ready.swap(again);
    try {
      if (bell_->rung.load(std::memory_order_relaxed)) FeedStarved();
      Resolve(events, ready, true);
    } catch (...) {
      // Out of memory: what was not taken over is reported again by the next wait, or still listed.
    }
    ReceiveAll(pass, ready, again);
    ready.clear();
    pass.HandOut(remove_);
  }
}

void ZrIoLoops::ReceiveAll(ZrReceivePass& pass, std::vector<Ready>& ready,
                           std::vector<Ready>& again) {
  for (Ready& one : ready) {
    const Registration registration = one.registration;
    pass.Read(registration->connection);
    try {
      Receive(one, again);
    } catch (...) {
      // Out of memory, in effect: this connection is given up, the others are served.
      remove_(*registration->connection);
    }
  }
}

void ZrIoLoops::Receive(Ready& ready, std::vector<Ready>& again) {
  ZrIoRegistration& registration = *ready.registration;
  ZrTransceiverConnection& connection = *registration.connection;
  // Nobody reads it, so its end is told by the system alone, and over and over.
  if (ready.hangup && IsPaused(registration)) return remove_(connection);
  if (registration.lost) return remove_(connection);
  if (ready.urgent) zr::DropUrgentByte(registration.socket->primaryDescriptor());
  const int count = connection.ReadFromSocket(*registration.socket);
  if (count < 0) return remove_(connection);
  if (count == 0) return OnPeerFinished(registration);
  if (connection.ReadAffectsOutput()) AfterOutput(registration);
  if (connection.IsReadingPaused() && PauseReading(registration)) return;
  if (memory_->Exceeded() && Starve(registration)) return;
  if (connection.HasBufferedInput()) again.push_back(std::move(ready));
}

// Whoever takes the bytes resumes the reading. The mark is looked at again under the lock, so that
// a taking in between is not missed.
bool ZrIoLoops::PauseReading(ZrIoRegistration& registration) {
  ZrTransceiverConnection& connection = *registration.connection;
  ZrLock hold(connection.Lock());
  if (connection.Registration() == nullptr || registration.paused) return true;
  if (!connection.IsReadingPaused() && !connection.PeerFinished()) return false;
  Unwatch(registration);
  return true;
}

void ZrIoLoops::Unwatch(ZrIoRegistration& registration) {
  registration.paused = true;
  const int descriptor = registration.socket->primaryDescriptor();
  receivePoller_.Remove(descriptor);
  // Whoever works for a peer is told when that has reset the connection.
  static_cast<void>(receivePoller_.Add(descriptor, registration.token, ZrInterest::kNone));
}

// Small requests of others are still read, so what is over the limit stays within the fair share of
// each connection.
bool ZrIoLoops::Starve(ZrIoRegistration& registration) {
  housekeeper_.WatchMemory(clock_.MonotonicNs() + kStandstill);
  ZrTransceiverConnection& connection = *registration.connection;
  ZrLock hold(connection.Lock());
  if (connection.Registration() == nullptr || registration.paused) return true;
  if (connection.IsClosing() || connection.HeldInput() <= kFairShare) return false;
  connection.PauseReading();
  registration.starved = true;
  Unwatch(registration);
  {
    ZrLock list(lock_);
    starved_.push_back(registration.token);
  }
  if (!memory_->Exceeded()) bell_->Ring();  // there was room meanwhile, and this one not listed
  return true;
}

void ZrIoLoops::FeedStarved() {
  std::vector<Registration> starved;
  {
    ZrLock hold(lock_);
    bell_->rung = false;
    for (const std::uint64_t token : starved_)
      if (const auto found = byToken_.find(token); found != byToken_.end())
        starved.push_back(found->second);
    starved_.clear();
  }
  for (const Registration& registration : starved) {
    ZrLock writing(registration->connection->Lock());
    if (!registration->starved) continue;
    registration->starved = false;
    if (!registration->connection->IsReadingPaused()) ResumeReading(*registration->connection);
  }
}

bool ZrIoLoops::IsPaused(ZrIoRegistration& registration) {
  ZrLock hold(registration.connection->Lock());
  return registration.paused;
}

void ZrIoLoops::ResumeReading(ZrTransceiverConnection& connection) {
  ZrLock writing(connection.Lock());
  ZrIoRegistration* const registration = connection.Registration();
  if (registration == nullptr || !registration->paused || connection.PeerFinished()) return;
  if (registration->starved && !connection.IsClosing() && memory_->Exceeded() &&
      connection.HeldInput() > kFairShare)
    return connection.PauseReading();  // asked again when more of its bytes were taken
  registration->starved = false;
  const int descriptor = registration->socket->primaryDescriptor();
  receivePoller_.Remove(descriptor);
  registration->paused = false;
  registration->lost = !receivePoller_.Add(descriptor, registration->token, kInput);
  if (registration->lost || connection.HasBufferedInput()) ReadAgain(registration->token);
}

// Its socket may never announce what TLS has taken from it already.
void ZrIoLoops::ReadAgain(std::uint64_t token) {
  {
    ZrLock hold(lock_);
    resumed_.push_back(token);
  }
  receivePoller_.Wake();
}

void ZrIoLoops::OnPeerFinished(ZrIoRegistration& registration) {
  ZrTransceiverConnection& connection = *registration.connection;
  const auto next = connection.OnPeerFinished();
  if (next == ZrTransceiverConnection::PeerEnd::kRemove) return remove_(connection);
  PauseReading(registration);
  if (next != ZrTransceiverConnection::PeerEnd::kFinish) return;
  connection.BeginClosing();
  Flush(connection);
}

// ---- Output ------------------------------------------------------------------------------------

void ZrIoLoops::SendLoop() {
  std::vector<Ready> ready;
  while (sending_) {
    try {
      Resolve(sendPoller_.Wait(kForEver), ready);
      if (flushAll_.exchange(false)) FlushAll();
    } catch (...) {
      flushAll_ = true;  // as in the receive loop
    }
    for (const Ready& one : ready) {
      ZrTransceiverConnection& connection = *one.registration->connection;
      try {
        Flush(connection, &one);
        // Room on the socket may be what reading had waited for.
        if (connection.HasBufferedInput() && !connection.IsReadingPaused())
          ReadAgain(one.registration->token);
      } catch (...) {
        remove_(connection);  // as in the receive loop
      }
    }
    ready.clear();
  }
}

void ZrIoLoops::FlushAllLater() {
  flushAll_ = true;
  sendPoller_.Wake();
}

void ZrIoLoops::FlushAll() {
  std::vector<Registration> pending;
  {
    ZrLock hold(lock_);
    for (const auto& [token, registration] : byToken_)
      if (registration->connection->SendPending()) pending.push_back(registration);
  }
  for (const Registration& registration : pending) Flush(*registration->connection);
}

void ZrIoLoops::Flush(ZrTransceiverConnection& connection) { Flush(connection, nullptr); }

void ZrIoLoops::Flush(ZrTransceiverConnection& connection, ZrStringBuf& bytes) {
  using Output = ZrTransceiverConnection::Output;
  bool alive = true;
  {
    ZrLock writing(connection.Lock());
    ZrIoRegistration* const registration = connection.Registration();
    if (registration == nullptr || connection.SendPending())
      connection.SendBuffer(std::exchange(bytes, ZrStringBuf()));
    if (registration != nullptr) {
      const Output output = bytes.Empty() ? connection.WriteToSocket(*registration->socket)
                                          : connection.WriteThrough(*registration->socket, bytes);
      alive = output != Output::kDead && EndOutputWhenDone(connection, *registration);
    }
  }
  if (!alive) return remove_(connection);
  AfterProgress(connection);
}

// A connection stands in the send job's set only because its socket refused bytes. One that hung up
// takes none any more, whatever it answers; and when there was nothing to give it, nothing will
// change that: either would be reported over and over.
void ZrIoLoops::Flush(ZrTransceiverConnection& connection, const Ready* ready) {
  using Output = ZrTransceiverConnection::Output;
  bool alive = true;
  {
    ZrLock writing(connection.Lock());
    if (ZrIoRegistration* const registration = connection.Registration()) {
      // What others add from here on is written next time.
      const bool wanted = connection.WantsOutput();
      const Output output = connection.WriteToSocket(*registration->socket);
      alive = output != Output::kDead && EndOutputWhenDone(connection, *registration);
      const bool idle = wanted && output == Output::kIdle && !connection.IsClosing();
      const bool useless = ready != nullptr && (ready->hangup || idle);
      if (useless && registration->outputWatched) alive = false;
    }
  }
  if (!alive) return remove_(connection);
  AfterProgress(connection);
}

void ZrIoLoops::AfterOutput(ZrIoRegistration& registration) {
  ZrTransceiverConnection& connection = *registration.connection;
  bool alive = true;
  {
    ZrLock writing(connection.Lock());
    alive = connection.Registration() == nullptr || EndOutputWhenDone(connection, registration);
  }
  if (!alive) return remove_(connection);
  AfterProgress(connection);
}

void ZrIoLoops::AfterProgress(ZrTransceiverConnection& connection) {
  progress_.Note();
  connection.Notices().TellRoom();
  if (connection.TakeStalled()) connection.Announce();
}

// On a closing connection: once all is written the sending side is shut down, and the connection
// waits a moment for the peer's end, because closing with unread input would make the system drop
// what the peer has not read yet. No: it can go now.
bool ZrIoLoops::EndOutputWhenDone(ZrTransceiverConnection& connection,
                                  ZrIoRegistration& registration) {
  bool wanted = connection.WantsOutput();
  if (connection.IsClosing() && !connection.SendPending() && !registration.outputEnded) {
    if (connection.FinishOutput(*registration.socket)) {
      registration.outputEnded = true;
      wanted = false;
      zr::ShutdownSend(registration.socket->primaryDescriptor());
      connection.Limits().BeginLinger();
      if (connection.PeerFinished()) return false;
      housekeeper_.Hasten(connection);
    } else {
      wanted = true;
    }
  }
  return WatchOutput(registration, wanted);
}

bool ZrIoLoops::WatchOutput(ZrIoRegistration& registration, bool wanted) {
  if (wanted == registration.outputWatched) return true;
  const int descriptor = registration.socket->primaryDescriptor();
  if (wanted) {
    registration.outputWatched =
        sendPoller_.Add(descriptor, registration.token, ZrInterest::kWrite);
  } else {
    registration.outputWatched = false;
    sendPoller_.Remove(descriptor);
  }
  return registration.outputWatched == wanted;
}
