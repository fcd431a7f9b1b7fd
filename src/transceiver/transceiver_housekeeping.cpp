// Time limits. The housekeeper sleeps until the earliest time at which something can expire, looks
// at what is due, and puts what has had traffic since at its next time. It also ends servers that
// lost their last owner where that owner must not wait for them.

#include <algorithm>
#include <limits>

#include "jobs/job_registry.h"
#include "jobs/job_with_timeout.h"
#include "transceiver/connection.h"
#include "transceiver/server_link.h"
#include "transceiver/transceiver.h"

namespace {

// Looking at many connections together is cheaper than at each in its own moment.
constexpr std::int64_t kGrain = 250'000'000;  // nanoseconds
constexpr std::int64_t kNever = std::numeric_limits<std::int64_t>::max();

constexpr std::int64_t RoundUp(std::int64_t due) { return (due / kGrain + 1) * kGrain; }

}  // namespace

// A head that begins unnoticed has its time limit kept all the same, because no connection is left
// alone for longer than that limit.
void ZrTransceiver::WatchConnection(const ConnectionPointer& connection) {
  const std::int64_t now = clock_.MonotonicNs();
  const std::int64_t due = RoundUp(
      std::clamp(connection->NextExpiryNs(), now, now + ZrTransceiverConnection::kHeadTimeLimit));
  ZrLock hold(houseLock_);
  watched_.erase({connection->watchedAt_, connection.get()});
  connection->watchedAt_ = due;
  if (due < HouseDue()) houseWake_.NotifyOne();
  watched_.emplace(WatchPlace(due, connection.get()), connection);
}

void ZrTransceiver::HastenConnection(ZrTransceiverConnection& connection) {
  const std::int64_t due = RoundUp(connection.NextExpiryNs());
  ZrLock hold(houseLock_);
  auto place = watched_.extract({connection.watchedAt_, &connection});
  if (!place) return;  // it is being looked at now, or not registered any more
  connection.watchedAt_ = due;
  place.key() = {due, &connection};
  if (due < HouseDue()) houseWake_.NotifyOne();
  watched_.insert(std::move(place));
}

void ZrTransceiver::ForgetConnection(ZrTransceiverConnection& connection) {
  ZrLock hold(houseLock_);
  watched_.erase({connection.watchedAt_, &connection});
}

void ZrTransceiver::WatchServers(std::int64_t due) {
  ZrLock hold(houseLock_);
  if (due >= serversDue_) return;
  serversDue_ = due;
  houseWake_.NotifyOne();
}

bool ZrTransceiver::EndLater(std::function<void()> end) {
  ZrLock hold(houseLock_);
  if (!alive_) return false;
  endings_.push_back(std::move(end));
  houseWake_.NotifyOne();
  return true;
}

void ZrTransceiver::WakeHousekeeper() {
  ZrLock hold(houseLock_);
  lookNow_ = true;
  houseWake_.NotifyOne();
}

void ZrTransceiver::EndHousekeeping() {
  {
    ZrLock hold(houseLock_);
    alive_ = false;
    houseWake_.NotifyOne();
  }
  housekeeper_.Join();
}

std::int64_t ZrTransceiver::HouseDue() const {
  return std::min(serversDue_, watched_.empty() ? kNever : watched_.begin()->first.first);
}

void ZrTransceiver::HousekeepingLoop() {
  for (;;) {
    std::vector<std::function<void()>> endings;
    std::vector<ConnectionPointer> due;
    bool serversDue = false;
    bool goOn = true;
    {
      ZrLock hold(houseLock_);
      // Woken when a nearer time was entered; the wait then starts anew with that one.
      const std::int64_t slept = HouseDue();
      const auto changed = [this, slept]() ZR_REQUIRES(houseLock_) {
        return !alive_ || lookNow_ || !endings_.empty() || HouseDue() < slept;
      };
      if (slept == kNever) {
        houseWake_.Wait(houseLock_, changed);
      } else {
        const std::int64_t rest = std::max<std::int64_t>(0, slept - clock_.MonotonicNs());
        houseWake_.WaitFor(houseLock_, std::chrono::nanoseconds(rest), changed);
      }
      goOn = alive_;
      lookNow_ = false;
      endings.swap(endings_);
      const std::int64_t now = clock_.MonotonicNs();
      while (!watched_.empty() && watched_.begin()->first.first <= now) {
        if (ConnectionPointer connection = watched_.begin()->second.lock()) {
          due.push_back(std::move(connection));
        }
        watched_.erase(watched_.begin());
      }
      serversDue = serversDue_ <= now;
      if (serversDue) serversDue_ = kNever;
    }
    for (const auto& end : endings) end();
    if (!goOn) return;
    if (serversDue) CheckServers();
    for (const ConnectionPointer& connection : due) CheckConnection(connection);
    ZrJobRegistry::Instance().WakeDelivery();
  }
}

void ZrTransceiver::CheckServers() {
  std::int64_t next = kNever;
  for (const auto& server : Servers()) {
    ZrJobWithTimeout& job = server->ServerJob();
    if (!job.HasExpired()) {
      if (server->CanExpire()) next = std::min(next, job.ExpiryNs());
      continue;
    }
    ZrJobEvent event;
    event.code = kZrEventTimeLimit;
    event.jobName = job.JobName();
    PostEvent(server->PeerName(), event);
    event.code = kZrEventEndServer;
    PostEvent(job.JobName(), event);
    RemoveServer(job.JobName());
  }
  // One that is past its time and not taken as expired says so at the next look.
  if (next != kNever) WatchServers(std::max(next, clock_.MonotonicNs() + kGrain));
}

void ZrTransceiver::CheckConnection(const ConnectionPointer& connection) {
  if (!connection->HasExpired()) return WatchConnection(connection);
  if (connection->IsClosing()) return RemoveConnection(connection->JobName(), false);
  ZrJobEvent event;
  event.code = kZrEventTimeLimit;
  event.jobName = connection->JobName();
  PostEvent(connection->ReceiverName(), std::move(event));
  {
    ZrLock hold(clientLock_);
    connections_.erase(connection->JobName());
  }
  connection->MarkExpired();
  try {
    connection->Close();
  } catch (...) {
    // Its owner gave it a callback that cannot close it: it goes all the same.
    RemoveConnection(connection->JobName(), false);
  }
}
