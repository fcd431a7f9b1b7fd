#include "transceiver/housekeeper.h"

#include <algorithm>
#include <chrono>

#include "jobs/job_registry.h"
#include "transceiver/connection.h"

namespace {

constexpr std::int64_t RoundUp(std::int64_t due) {
  return (due / ZrHousekeeper::kGrain + 1) * ZrHousekeeper::kGrain;
}

// What fails is one duty's affair, in effect for want of memory: the thread goes on.
template <class Duty>
void Do(const Duty& duty) noexcept {
  try {
    duty();
  } catch (...) {
  }
}

}  // namespace

void ZrHousekeeper::Start(Duties duties) {
  duties_ = std::move(duties);
  thread_ = ZrThread::Start("zr_housekeeper", [this] { Loop(); });
}

void ZrHousekeeper::End() {
  {
    ZrLock hold(lock_);
    alive_ = false;
    wake_.NotifyOne();
  }
  thread_.Join();
}

// A head that begins unnoticed has its time limit kept all the same, because no connection is left
// alone for longer than that limit.
void ZrHousekeeper::Watch(const std::shared_ptr<ZrTransceiverConnection>& connection) {
  const std::int64_t now = clock_.MonotonicNs();
  // Asked under the lock: a limit that Hasten() comes too early with is seen here.
  ZrLock hold(lock_);
  const std::int64_t due = RoundUp(
      std::clamp(connection->NextExpiryNs(), now, now + ZrConnectionLimits::kHeadTimeLimit));
  if (const auto before = placeOf_.find(connection.get()); before != placeOf_.end())
    places_.erase(before->second);
  if (due < Due()) wake_.NotifyOne();
  placeOf_[connection.get()] = places_.emplace(Place(due, connection.get()), connection).first;
}

void ZrHousekeeper::Hasten(ZrTransceiverConnection& connection) {
  ZrLock hold(lock_);
  const auto found = placeOf_.find(&connection);
  if (found == placeOf_.end()) return;  // it is being looked at now, and watched again after that
  const std::int64_t due = RoundUp(connection.NextExpiryNs());
  auto place = places_.extract(found->second);
  place.key() = {due, &connection};
  if (due < Due()) wake_.NotifyOne();
  found->second = places_.insert(std::move(place)).position;
}

void ZrHousekeeper::Forget(const ZrTransceiverConnection& connection) {
  ZrLock hold(lock_);
  const auto found = placeOf_.find(&connection);
  if (found == placeOf_.end()) return;
  places_.erase(found->second);
  placeOf_.erase(found);
}

void ZrHousekeeper::WatchServers(std::int64_t due) {
  ZrLock hold(lock_);
  if (due >= serversDue_) return;
  serversDue_ = due;
  wake_.NotifyOne();
}

void ZrHousekeeper::WatchMemory(std::int64_t due) {
  ZrLock hold(lock_);
  if (due >= memoryDue_) return;
  memoryDue_ = due;
  wake_.NotifyOne();
}

bool ZrHousekeeper::EndLater(std::function<void()> end) {
  ZrLock hold(lock_);
  if (!alive_) return false;
  endings_.push_back(std::move(end));
  wake_.NotifyOne();
  return true;
}

void ZrHousekeeper::Wake() {
  ZrLock hold(lock_);
  lookNow_ = true;
  wake_.NotifyOne();
}

std::int64_t ZrHousekeeper::Due() const {
  const std::int64_t place = places_.empty() ? kNever : places_.begin()->first.first;
  return std::min({serversDue_, memoryDue_, place});
}

// Woken when a nearer time was entered; the wait then starts anew with that one.
void ZrHousekeeper::Wait() {
  const std::int64_t slept = Due();
  const auto changed = [this, slept]() ZR_REQUIRES(lock_) {
    return !alive_ || lookNow_ || !endings_.empty() || Due() < slept;
  };
  if (slept == kNever) {
    wake_.Wait(lock_, changed);
  } else {
    const std::int64_t rest = std::max<std::int64_t>(0, slept - clock_.MonotonicNs());
    wake_.WaitFor(lock_, std::chrono::nanoseconds(rest), changed);
  }
}

ZrHousekeeper::Work ZrHousekeeper::TakeDue() {
  Work work;
  work.goOn = alive_;
  lookNow_ = false;
  work.endings.swap(endings_);
  const std::int64_t now = clock_.MonotonicNs();
  while (!places_.empty() && places_.begin()->first.first <= now) {
    if (auto connection = places_.begin()->second.lock())
      work.connections.push_back(std::move(connection));
    placeOf_.erase(places_.begin()->first.second);
    places_.erase(places_.begin());
  }
  work.servers = serversDue_ <= now;
  if (work.servers) serversDue_ = kNever;
  work.memory = memoryDue_ <= now;
  if (work.memory) memoryDue_ = kNever;
  return work;
}

void ZrHousekeeper::Loop() {
  for (;;) {
    Work work;
    {
      ZrLock hold(lock_);
      Wait();
      work = TakeDue();
    }
    for (const auto& end : work.endings) Do(end);
    if (!work.goOn) return;
    if (work.servers) {
      std::int64_t next = clock_.MonotonicNs() + kGrain;
      Do([&] { next = duties_.checkServers(); });
      WatchServers(next);
    }
    if (work.memory) {
      std::int64_t next = clock_.MonotonicNs() + kGrain;
      Do([&] { next = duties_.checkMemory(); });
      WatchMemory(next);
    }
    for (const auto& connection : work.connections)
      Do([&] { duties_.checkConnection(connection); });
    Do([] { ZrJobRegistry::Instance().WakeDelivery(); });
  }
}
