#include "transceiver/io_loops.h"

#include <algorithm>
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

// Out-of-band data is no part of any protocol here; it is watched for to be dropped.
constexpr unsigned kInput = ZrInterest::kRead | ZrInterest::kUrgent;
// Connections that agree on their keys take that long (nanoseconds) of a pass together, and one
// step of one of them: who is served already does not wait for more of them.
constexpr std::int64_t kOpeningTime = 300'000;

}  // namespace

ZrIoLoops::ZrIoLoops(ZrRinvalScheduler2& scheduler, ZrHousekeeper& housekeeper,
                     ZrStopProgress& progress, const ZrClock& clock, std::string name,
                     std::uint64_t memoryLimit, ZrIoTeamSize team, Remove remove)
    : scheduler_(scheduler),
      housekeeper_(housekeeper),
      progress_(progress),
      clock_(clock),
      name_(std::move(name)),
      remove_(std::move(remove)),
      receivers_(ZrIoLane::Direction::kInput, "zr-receive", team,
                 [this](ZrIoTeam::Member& member) { ReceiveLoop(member); }),
      senders_(ZrIoLane::Direction::kOutput, "zr-send", team,
               [this](ZrIoTeam::Member& member) { SendLoop(member); }),
      bell_(std::make_shared<Bell>(receivers_.First())),
      memory_(std::make_shared<ZrMemoryBudget>(memoryLimit, [bell = bell_] { bell->Ring(); })) {}

// ---- Registration ------------------------------------------------------------------------------

bool ZrIoLoops::Register(std::shared_ptr<ZrSocketIPvx> socket,
                         const std::shared_ptr<ZrTransceiverConnection>& connection) {
  if (socket->primaryDescriptor() < 0) return false;
  auto registration = std::make_shared<ZrIoRegistration>();
  registration->socket = std::move(socket);
  registration->connection = connection;
  // Held until the socket is watched, so that a removal at this moment comes after it.
  ZrLock writing(connection->Lock());
  {
    ZrLock hold(lock_);
    if (!StartJobs()) return false;
    registration->token = ++lastToken_;
    receivers_.Enter(registration);
  }
  connection->Bind(registration);
  ZrIoLane& lane = *registration->input.lane;
  if (lane.Watch(*registration, kInput)) {
    // A handshake that was made before may have read more than its own bytes.
    if (connection->HasBufferedInput()) lane.Report(registration->token);
    return true;
  }
  connection->Bind(nullptr);
  lane.Leave(*registration);
  return false;
}

ZrIoLoops::Registration ZrIoLoops::Unregister(ZrTransceiverConnection& connection) {
  connection.PeerWatch()->MarkGone();
  Registration registration;  // goes without the locks, and the socket with it
  ZrLock writing(connection.Lock());
  registration = connection.Bind(nullptr);
  if (!registration) return nullptr;
  for (const auto& side : {registration->input, registration->output})
    if (side.lane) side.lane->Leave(*registration);
  connection.DropQueue();
  return registration;
}

// ---- The two jobs ------------------------------------------------------------------------------

bool ZrIoLoops::StartJobs() {
  if (stopped_) return false;
  if (receiveJob_ == 0) receiveJob_ = Submit("ZrTransceiver_tcp_rcv", receivers_);
  if (sendJob_ == 0) sendJob_ = Submit("ZrTransceiver_tcp_snd", senders_);
  return receiveJob_ != 0 && sendJob_ != 0;
}

// 0: there is no thread for it. That is so when the task is done already, as it runs until it is
// told to stop.
std::uint64_t ZrIoLoops::Submit(const std::string& name, ZrIoTeam& team) {
  team.Begin();
  ZrRinvalTaskDescription description;
  description.name = name + name_;
  description.stopAction = [&team] { team.Stop(); };
  const std::uint64_t task = scheduler_.Submit(
      [&team](ZrRinvalJobParametersAndResult* record) {
        team.Run();
        return record;
      },
      nullptr, description);
  if (!scheduler_.IsDone(task)) return task;
  scheduler_.FetchResult(task);
  return 0;
}

void ZrIoLoops::Stop() {
  {
    ZrLock hold(lock_);
    stopped_ = true;
  }
  for (const Registration& registration : receivers_.All()) {
    registration->connection->BeginClosing();
    Unregister(*registration->connection);
  }
  receivers_.Stop();
  senders_.Stop();
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

// ---- Input -------------------------------------------------------------------------------------

void ZrIoLoops::ReceiveLoop(ZrIoTeam::Member& member) {
  std::vector<Ready> ready;
  const ZrWorkbench workbench;
  ZrReceivePass pass(telling_);
  while (member.Next(ready, pass.Patience())) {
    try {
      if (bell_->rung.load(std::memory_order_relaxed)) FeedStarved();
    } catch (...) {
      bell_->Ring();  // out of memory
    }
    const auto opening = std::partition(ready.begin(), ready.end(), [](const Ready& one) {
      return !one.registration->connection->IsOpening();
    });
    // A pass with nobody in it lets go of what is kept: one with new connections alone is none.
    if (opening != ready.begin() || ready.empty()) {
      ReceiveAll(pass, member.Lane(), {ready.begin(), opening});
      pass.HandOut(remove_);
    }
    if (opening != ready.end()) ReceiveOpening(pass, member.Lane(), {opening, ready.end()});
  }
}

void ZrIoLoops::ReceiveAll(ZrReceivePass& pass, ZrIoLane& lane, ReadySpan ready) {
  for (const Ready& one : ready) {
    pass.Read(one.registration->connection);
    try {
      Receive(lane, one);
    } catch (...) {
      // Out of memory, in effect: this connection is given up, the others are served.
      remove_(*one.registration->connection);
    }
  }
}

// Behind all others, and no more of them than the others can wait for. The system reports those
// that are left again, before those that were read.
void ZrIoLoops::ReceiveOpening(ZrReceivePass& pass, ZrIoLane& lane, ReadySpan ready) {
  const std::int64_t begun = clock_.MonotonicNs();
  std::size_t read = 0;
  do ReceiveAll(pass, lane, ready.subspan(read++, 1));
  while (read < ready.size() && clock_.MonotonicNs() - begun < kOpeningTime);
  pass.HandOut(remove_);
  for (const Ready& one : ready.subspan(read))
    if (one.registration->connection->HasBufferedInput()) lane.ReportNext(one.registration->token);
}

void ZrIoLoops::Receive(ZrIoLane& lane, const Ready& ready) {
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
  if (connection.HasBufferedInput()) lane.ReportNext(registration.token);
}

// Whoever takes the bytes resumes the reading. The mark is looked at again under the lock, so that
// a taking in between is not missed.
bool ZrIoLoops::PauseReading(ZrIoRegistration& registration) {
  ZrTransceiverConnection& connection = *registration.connection;
  ZrLock hold(connection.Lock());
  if (connection.Registration() == nullptr || registration.paused) return true;
  if (!connection.IsReadingPaused() && !connection.PeerFinished()) return false;
  Pause(registration);
  return true;
}

void ZrIoLoops::Pause(ZrIoRegistration& registration) {
  registration.paused = true;
  // Whoever works for a peer is told when that has reset the connection.
  static_cast<void>(registration.input.lane->Watch(registration, ZrInterest::kNone));
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
  Pause(registration);
  {
    ZrLock list(lock_);
    starved_.push_back(connection.Bound());
  }
  if (!memory_->Exceeded()) bell_->Ring();  // there was room meanwhile, and this one not listed
  return true;
}

void ZrIoLoops::FeedStarved() {
  std::vector<Registration> starved;
  {
    ZrLock hold(lock_);
    bell_->rung = false;
    for (const auto& one : starved_)
      if (Registration registration = one.lock()) starved.push_back(std::move(registration));
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
  registration->paused = false;
  ZrIoLane& lane = *registration->input.lane;
  registration->lost = !lane.Watch(*registration, kInput);
  if (registration->lost || connection.HasBufferedInput()) lane.Report(registration->token);
}

// Its socket may never announce what TLS has taken from it already.
void ZrIoLoops::ReadAgain(ZrTransceiverConnection& connection) {
  ZrLock hold(connection.Lock());
  if (const ZrIoRegistration* const registration = connection.Registration())
    registration->input.lane->Report(registration->token);
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

void ZrIoLoops::SendLoop(ZrIoTeam::Member& member) {
  std::vector<Ready> ready;
  const ZrWorkbench workbench;
  while (member.Next(ready, ZrIoTeam::kForEver)) {
    if (flushAll_.exchange(false)) {
      try {
        FlushAll();
      } catch (...) {
        FlushAllLater();  // out of memory
      }
    }
    for (const Ready& one : ready) {
      ZrTransceiverConnection& connection = *one.registration->connection;
      try {
        Flush(connection, &one);
        // Room on the socket may be what reading had waited for.
        if (connection.HasBufferedInput() && !connection.IsReadingPaused()) ReadAgain(connection);
      } catch (...) {
        remove_(connection);  // as in the receive loop
      }
    }
  }
}

void ZrIoLoops::FlushAllLater() {
  flushAll_ = true;
  senders_.First()->Wake();
}

void ZrIoLoops::FlushAll() {
  for (const Registration& registration : receivers_.All())
    if (registration->connection->SendPending()) Flush(*registration->connection);
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
      if (useless && registration->output.watched) alive = false;
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
  return WatchOutput(connection, registration, wanted);
}

bool ZrIoLoops::WatchOutput(ZrTransceiverConnection& connection, ZrIoRegistration& registration,
                            bool wanted) {
  if (wanted == registration.output.watched) return true;
  if (!wanted) {
    registration.output.lane->Leave(registration);
    return true;
  }
  senders_.Enter(connection.Bound());
  return registration.output.lane->Watch(registration, ZrInterest::kWrite);
}
