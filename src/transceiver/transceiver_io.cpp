// Connections of the transceiver and the two jobs that move their bytes.
//
// The receive job waits for input of every connection; the kernel reports what is ready, so a pass
// costs nothing for silent ones. Output is written by the thread that has it; only a connection
// whose socket refused some stands in the send job's set, until all is written. A connection is
// taken out of the receive job's set while its server leaves too much unread, and for good when the
// peer has ended its side, as the kernel would report that over and over.

#include <chrono>
#include <utility>

#include "base/exception.h"
#include "jobs/scheduler.h"
#include "net/tcp_socket.h"
#include "platform/socket.h"
#include "transceiver/connection.h"
#include "transceiver/transceiver.h"

namespace {

constexpr std::chrono::nanoseconds kForEver{-1};
// Out-of-band data is no part of any protocol here; it is watched for to be dropped.
constexpr unsigned kInput = ZrInterest::kRead | ZrInterest::kUrgent;

}  // namespace

// ---- Registration ------------------------------------------------------------------------------

std::string ZrTransceiver::AddConnection(std::shared_ptr<ZrSocketIPvx> socket,
                                         std::shared_ptr<ZrTransceiverConnection> connection) {
  if (!socket || !connection) {
    throw ZrException("socket and connection must be defined", 1906, "src");
  }
  const std::string& name = connection->JobName();
  const int descriptor = socket->primaryDescriptor();
  bool watched = false;
  {
    // Held until the socket is watched, so that a removal at this moment comes after it.
    ZrLock writing(connection->Lock());
    {
      ZrLockBoth hold(clientLock_, ioLock_);
      const auto [place, added] = sockets_.try_emplace(name);
      if (!added) return name;
      place->second = {socket, connection, ++lastToken_, false};
      byToken_.emplace(lastToken_, &place->second);
      connection->token_ = lastToken_;
      connections_.emplace(name, connection);
      StartIO();
    }
    WatchConnection(connection);
    connection->socket_ = std::move(socket);
    watched = receivePoller_.Add(descriptor, connection->token_, kInput);
  }
  if (!watched) RemoveConnection(name, true);
  return name;
}

void ZrTransceiver::RemoveConnection(const std::string& name, bool) {
  Registered removed;
  std::shared_ptr<ZrServerLink> server;  // released without the locks, like the connection
  {
    ZrLockBoth hold(clientLock_, ioLock_);
    const auto found = sockets_.find(name);
    if (found == sockets_.end()) return;
    removed = std::move(found->second);
    byToken_.erase(removed.token);
    sockets_.erase(found);
    connections_.erase(name);
    if (const auto ofName = servers_.find(name); ofName != servers_.end()) {
      server = std::move(ofName->second);
      servers_.erase(ofName);
    }
  }
  ZrJobEvent event;
  event.code = kZrEventClosed;
  event.jobName = name;
  PostEvent(removed.connection->PeerName(), event);
  PostEvent(removed.connection->ReceiverName(), event);
  PostEvent(name, std::move(event));
  Unbind(*removed.connection);
  NoteProgress();
}

void ZrTransceiver::Unbind(ZrTransceiverConnection& connection) {
  ForgetConnection(connection);
  connection.BeginClosing();
  std::shared_ptr<ZrSocketIPvx> socket;  // closed without the lock
  ZrLock writing(connection.Lock());
  if (!connection.socket_) return;
  receivePoller_.Remove(connection.socket_->primaryDescriptor());
  WatchOutput(connection, false);
  socket = std::move(connection.socket_);
  connection.DropQueue();
}

std::shared_ptr<ZrTransceiverConnection> ZrTransceiver::FindConnection(const std::string& name) {
  ZrLock hold(clientLock_);
  const auto found = connections_.find(name);
  return found == connections_.end() ? nullptr : found->second;
}

std::size_t ZrTransceiver::ConnectionCount() {
  ZrLock hold(clientLock_);
  return connections_.size();
}

std::vector<ZrTransceiver::ConnectionPointer> ZrTransceiver::Connections() {
  std::vector<ConnectionPointer> connections;
  ZrLock hold(clientLock_);
  connections.reserve(connections_.size());
  for (const auto& [name, connection] : connections_) connections.push_back(connection);
  return connections;
}

// ---- The two jobs ------------------------------------------------------------------------------

void ZrTransceiver::StartIO() {
  if (receiveJob_ == 0) {
    receiveJob_ = SubmitLoop("ZrTransceiver_tcp_rcv", &ZrTransceiver::ReceiveLoop, receiving_,
                             receivePoller_);
  }
  if (sendJob_ == 0) {
    sendJob_ = SubmitLoop("ZrTransceiver_tcp_snd", &ZrTransceiver::SendLoop, sending_, sendPoller_);
  }
}

std::uint64_t ZrTransceiver::SubmitLoop(const std::string& name, void (ZrTransceiver::*loop)(),
                                        std::atomic<bool>& running, ZrPoller& poller) {
  running = true;
  ZrRinvalTaskDescription description;
  description.name = name + JobName();
  description.stopAction = [&running, &poller] {
    running = false;
    poller.Wake();
  };
  return scheduler_.Submit(
      [this, loop](ZrRinvalJobParametersAndResult* record) {
        (this->*loop)();
        return record;
      },
      nullptr, description);
}

void ZrTransceiver::StopIO() {
  receiving_ = false;
  sending_ = false;
  decltype(sockets_) sockets;  // closed without the lock
  {
    ZrLock hold(ioLock_);
    byToken_.clear();
    sockets.swap(sockets_);
  }
  for (const auto& [name, registered] : sockets) Unbind(*registered.connection);
  receivePoller_.Wake();
  sendPoller_.Wake();
}

// The loops use this object to their last step: it waits for them.
void ZrTransceiver::EndIO() {
  std::uint64_t receiveJob = 0;
  std::uint64_t sendJob = 0;
  {
    ZrLock hold(ioLock_);
    receiveJob = std::exchange(receiveJob_, 0);
    sendJob = std::exchange(sendJob_, 0);
  }
  for (const std::uint64_t job : {receiveJob, sendJob}) {
    if (job == 0) continue;
    scheduler_.WaitDone(job);
    scheduler_.FetchResult(job);
  }
}

void ZrTransceiver::Resolve(std::span<const ZrReadiness> events, std::vector<Ready>& ready) {
  ZrLock hold(ioLock_);
  for (const ZrReadiness& event : events) {
    const auto found = byToken_.find(event.token);
    if (found == byToken_.end()) continue;
    ready.push_back({found->second->socket, found->second->connection, event.token, event.urgent,
                     event.hangup});
  }
}

void ZrTransceiver::ReceiveLoop() {
  std::vector<Ready> ready;
  std::vector<Ready> again;  // have input of their own, whatever their sockets say
  while (receiving_) {
    const auto events = receivePoller_.Wait(again.empty() ? kForEver : std::chrono::nanoseconds(0));
    ready.swap(again);
    Resolve(events, ready);
    ResolveResumed(ready);
    for (Ready& one : ready) {
      try {
        Receive(one, again);
      } catch (...) {
        // Out of memory, in effect: this connection is given up, the others are served.
        RemoveConnection(one.connection->JobName(), true);
      }
    }
    ready.clear();
  }
}

void ZrTransceiver::Receive(Ready& ready, std::vector<Ready>& again) {
  ZrTransceiverConnection& connection = *ready.connection;
  if (ready.urgent) zr::DropUrgentByte(ready.socket->primaryDescriptor());
  const int count = connection.ReadFromSocket(*ready.socket);
  if (count < 0) return RemoveConnection(connection.JobName(), true);
  if (count == 0) return OnPeerFinished(connection);
  if (connection.ReadAffectsOutput()) AfterOutput(connection);
  if (connection.IsReadingPaused() && PauseReading(connection)) return;
  if (connection.HasBufferedInput()) again.push_back(std::move(ready));
}

// Whoever takes the bytes resumes the reading. The mark is looked at again under the lock, so that
// a taking in between is not missed.
bool ZrTransceiver::PauseReading(ZrTransceiverConnection& connection) {
  ZrLock hold(ioLock_);
  const auto found = sockets_.find(connection.JobName());
  if (found == sockets_.end() || found->second.paused) return true;
  if (!connection.IsReadingPaused() && !connection.PeerFinished()) return false;
  found->second.paused = true;
  receivePoller_.Remove(found->second.socket->primaryDescriptor());
  return true;
}

void ZrTransceiver::ResumeReading(ZrTransceiverConnection& connection) {
  ZrLock hold(ioLock_);
  const auto found = sockets_.find(connection.JobName());
  if (found == sockets_.end() || !found->second.paused || connection.PeerFinished()) return;
  found->second.paused =
      !receivePoller_.Add(found->second.socket->primaryDescriptor(), found->second.token, kInput);
  if (connection.HasBufferedInput()) ReadAgain(found->second.token);
}

// Its socket may never announce what TLS has taken from it already.
void ZrTransceiver::ReadAgain(std::uint64_t token) {
  resumed_.push_back(token);
  receivePoller_.Wake();
}

void ZrTransceiver::ResolveResumed(std::vector<Ready>& ready) {
  ZrLock hold(ioLock_);
  for (const std::uint64_t token : resumed_) {
    const auto found = byToken_.find(token);
    if (found != byToken_.end()) {
      ready.push_back({found->second->socket, found->second->connection, token});
    }
  }
  resumed_.clear();
}

void ZrTransceiver::OnPeerFinished(ZrTransceiverConnection& connection) {
  const auto next = connection.OnPeerFinished();
  if (next == ZrTransceiverConnection::PeerEnd::kRemove) {
    return RemoveConnection(connection.JobName(), true);
  }
  PauseReading(connection);
  if (next == ZrTransceiverConnection::PeerEnd::kFinish) FinishConnection(connection);
}

// ---- Output ------------------------------------------------------------------------------------

void ZrTransceiver::SendLoop() {
  std::vector<Ready> ready;
  while (sending_) {
    Resolve(sendPoller_.Wait(kForEver), ready);
    if (flushAll_.exchange(false)) FlushAll();
    for (const Ready& one : ready) {
      try {
        Flush(*one.connection, &one);
        // Room on the socket may be what reading had waited for.
        if (one.connection->HasBufferedInput() && !one.connection->IsReadingPaused()) {
          ZrLock hold(ioLock_);
          ReadAgain(one.token);
        }
      } catch (...) {
        RemoveConnection(one.connection->JobName(), true);  // as in the receive loop
      }
    }
    ready.clear();
  }
}

void ZrTransceiver::WakeSender() {
  flushAll_ = true;
  sendPoller_.Wake();
}

void ZrTransceiver::FlushAll() {
  for (const ConnectionPointer& connection : Connections()) {
    if (connection->SendPending()) FlushConnection(*connection);
  }
}

void ZrTransceiver::FlushConnection(ZrTransceiverConnection& connection) {
  Flush(connection, nullptr);
}

// A connection stands in the send job's set only because its socket refused bytes. One that hung up
// takes none any more, whatever it answers; and when there was nothing to give it, nothing will
// change that: either would be reported over and over.
void ZrTransceiver::Flush(ZrTransceiverConnection& connection, const Ready* ready) {
  using Output = ZrTransceiverConnection::Output;
  bool alive = true;
  {
    ZrLock writing(connection.Lock());
    if (connection.socket_) {
      const Output output = connection.WriteToSocket(*connection.socket_);
      alive = output != Output::kDead && EndOutputWhenDone(connection);
      const bool idle = output == Output::kIdle && !connection.IsClosing();
      const bool useless = ready != nullptr && (ready->hangup || idle);
      if (useless && connection.outputWatched_) alive = false;
    }
  }
  if (!alive) return RemoveConnection(connection.JobName(), true);
  NoteProgress();
  if (connection.TakeStalled()) connection.Announce();
}

// A pass of receiving may have written, or wait for room to go on.
void ZrTransceiver::AfterOutput(ZrTransceiverConnection& connection) {
  bool alive = true;
  {
    ZrLock writing(connection.Lock());
    alive = !connection.socket_ || EndOutputWhenDone(connection);
  }
  if (!alive) return RemoveConnection(connection.JobName(), true);
  NoteProgress();
  if (connection.TakeStalled()) connection.Announce();
}

// On a closing connection: once all is written the sending side is shut down, and the connection
// waits a moment for the peer's end, because closing with unread input would make the system drop
// what the peer has not read yet. No: it can go now.
bool ZrTransceiver::EndOutputWhenDone(ZrTransceiverConnection& connection) {
  bool wanted = connection.WantsOutput();
  if (connection.IsClosing() && !connection.SendPending() && !connection.outputEnded_) {
    if (connection.FinishOutput(*connection.socket_)) {
      connection.outputEnded_ = true;
      wanted = false;
      zr::ShutdownSend(connection.socket_->primaryDescriptor());
      connection.BeginLinger();
      if (connection.PeerFinished()) return false;
      HastenConnection(connection);
    } else {
      wanted = true;
    }
  }
  WatchOutput(connection, wanted);
  return true;
}

void ZrTransceiver::WatchOutput(ZrTransceiverConnection& connection, bool wanted) {
  if (wanted == connection.outputWatched_) return;
  const int descriptor = connection.socket_->primaryDescriptor();
  if (wanted) {
    connection.outputWatched_ = sendPoller_.Add(descriptor, connection.token_, ZrInterest::kWrite);
  } else {
    connection.outputWatched_ = false;
    sendPoller_.Remove(descriptor);
  }
}

void ZrTransceiver::FinishConnection(ZrTransceiverConnection& connection) {
  connection.BeginClosing();
  if (connection.IsExpired()) return RemoveConnection(connection.JobName(), false);
  ResumeReading(connection);
  FlushConnection(connection);
}

// Looks anew whenever something went on; what goes on during a look is seen by the next one.
bool ZrTransceiver::WaitForAnswers(std::chrono::nanoseconds limit) {
  const auto end = std::chrono::steady_clock::now() + limit;
  draining_ = true;
  for (;;) {
    {
      ZrLock hold(drainLock_);
      progressed_ = false;
    }
    bool busy = false;
    for (const ConnectionPointer& connection : Connections()) {
      busy = busy || connection->IsBusy() || connection->SendPending();
    }
    if (!busy) return true;
    ZrLock hold(drainLock_);
    const auto changed = [this]() ZR_REQUIRES(drainLock_) { return progressed_ || abandoned_; };
    if (!progress_.WaitUntil(drainLock_, end, changed) || abandoned_) return false;
  }
}

void ZrTransceiver::AbandonAnswers() {
  ZrLock hold(drainLock_);
  abandoned_ = true;
  progress_.NotifyAll();
}

void ZrTransceiver::NoteProgress() {
  if (!draining_) return;
  ZrLock hold(drainLock_);
  progressed_ = true;
  progress_.NotifyAll();
}
