#include <chrono>
#include <utility>

#include "jobs/job.h"
#include "jobs/job_link.h"
#include "jobs/job_registry.h"
#include "jobs/named_id_source.h"

// Delivery. The queue holds all events in the order of posting. The delivery thread takes the front
// one and claims its receiver: nobody else delivers to it, and its lock is free. A receiver that
// cannot be claimed is parked: this event and all later ones gather in its backlog, until the
// unlock that frees the receiver's lock, or the delivery that occupies it, puts them back at the
// front of the queue. Events of one job thus keep their order, which is: backlog, then queue.
//
// A claim (link.delivering together with the job's lock) is taken by Claim() and given back by
// Hand(). Retire() waits for that flag, so a claimed job stays whole; the job's lock alone would
// not do, since the thread that gives it back still touches it.
//
// Notices of the registry itself (code 6) come with every answered request and are urgent to
// nobody: a sleeping delivery thread that is woken by one waits a moment for more, so that a busy
// server wakes it a thousand times a second and not for every request.

namespace {

constexpr std::chrono::milliseconds kNoticePause{1};

// The link to which this thread is delivering. Initial-exec: no allocation and no loader lock at
// first use, which a thread could wait for while the library is being unloaded.
[[gnu::tls_model("initial-exec")]] thread_local const ZrJobLink* deliveredHere = nullptr;
// That job has retired in the middle of it.
[[gnu::tls_model("initial-exec")]] thread_local bool retiredHere = false;

}  // namespace

bool ZrJobRegistry::OnDeliveringThread() noexcept { return deliveredHere != nullptr; }

bool ZrJobRegistry::NoteRetiredHere(const ZrJobLink& link) noexcept {
  if (deliveredHere != &link) return false;
  retiredHere = true;
  return true;
}

ZrJobRegistry::Link ZrJobRegistry::FindTarget(std::string_view target) const {
  const auto number = ZrNamedIdSource::NumberOf(kJobPrefix, target);
  const ZrJobLink* const found = number ? jobs_.Find(*number) : nullptr;
  return found ? found->job->link_ : nullptr;
}

// The lock taken here is given back by Hand(), which the analysis cannot follow.
ZrJob* ZrJobRegistry::Claim(const Link& link) ZR_NO_THREAD_SAFETY_ANALYSIS {
  if (link->delivering || !link->job->lock_.TryLockOrPark(link)) return nullptr;
  link->delivering = true;
  return link->job;
}

void ZrJobRegistry::Hand(ZrJob& job, const Link& link,
                         std::span<const ZrJobEvent> events) noexcept ZR_NO_THREAD_SAFETY_ANALYSIS {
  deliveredHere = link.get();
  retiredHere = false;
  for (const ZrJobEvent& event : events) {
    if (retiredHere) break;
    try {
      job.ReceiveEvent(event);
    } catch (...) {
      // The event counts as delivered; its sender is long gone.
    }
  }
  deliveredHere = nullptr;
  job.lock_.unlock();
  const ZrLock hold(lock_);
  link->delivering = false;
  Unpark(*link);
  if (link->retiring > 0) delivered_.NotifyAll();
}

void ZrJobRegistry::Park(ZrJobLink& link, std::list<Entry>& entry) {
  link.parked = true;
  link.backlog.splice(link.backlog.end(), entry);
}

void ZrJobRegistry::Unpark(ZrJobLink& link) noexcept {
  if (!link.parked) return;
  link.parked = false;
  queue_.splice(queue_.begin(), link.backlog);
  WakeNow();
}

void ZrJobRegistry::Resume(const Link& link) noexcept {
  const ZrLock hold(lock_);
  Unpark(*link);
}

void ZrJobRegistry::WakeNow() noexcept {
  if (drain_) return;
  drain_ = true;
  wake_.NotifyOne();
}

void ZrJobRegistry::Queue(std::list<Entry>& entry, bool urgent) {
  ZrJobLink& link = *entry.front().target;
  ++events_;
  // Straight to the backlog, unless older events of the job are still in the queue.
  const bool aside = link.parked && link.pending == link.backlog.size();
  ++link.pending;
  if (aside) {
    link.backlog.splice(link.backlog.end(), entry);
    return;
  }
  const bool first = queue_.empty();
  queue_.splice(queue_.end(), entry);
  if (urgent)
    WakeNow();
  else if (first)
    wake_.NotifyOne();
}

bool ZrJobRegistry::Post(std::string_view target, ZrJobEvent event) {
  std::list<Entry> entry(1);
  entry.front().event = std::move(event);
  const ZrLock hold(lock_);
  entry.front().target = FindTarget(target);
  if (entry.front().target && !stopping_) Queue(entry, true);
  return true;
}

bool ZrJobRegistry::Deliver(std::string_view target, ZrJobEvent event) {
  return Deliver(target, std::span<const ZrJobEvent>(&event, 1));
}

bool ZrJobRegistry::Deliver(std::string_view target, std::span<const ZrJobEvent> events) {
  if (events.empty()) return true;
  Link link;
  ZrJob* job = nullptr;
  {
    const ZrLock hold(lock_);
    link = FindTarget(target);
    if (!link || stopping_) return true;
    if (link->pending == 0 && !OnDeliveringThread()) job = Claim(link);
    if (!job) {
      for (const ZrJobEvent& event : events) {
        std::list<Entry> entry(1);
        entry.front().target = link;
        entry.front().event = event;
        Queue(entry, true);
      }
      return true;
    }
  }
  Hand(*job, link, events);
  return true;
}

void ZrJobRegistry::WakeDelivery() {
  const ZrLock hold(lock_);
  if (!queue_.empty() && !stopping_) WakeNow();
}

void ZrJobRegistry::StartDelivery() {
  if (!delivery_.Joinable() && !stopping_)
    delivery_ = ZrThread::Start(
        "zr-delivery", [this, shift = shift_] { DeliveryLoop(shift); });
}

ZrJob* ZrJobRegistry::TakeFront(std::list<Entry>& taken) {
  taken.splice(taken.begin(), queue_, queue_.begin());
  if (queue_.empty()) drain_ = false;
  ZrJobLink& link = *taken.front().target;
  ZrJob* job = nullptr;
  if (link.memberships) {  // listed
    if (!link.parked) job = Claim(taken.front().target);
    if (!job) {
      Park(link, taken);
      return nullptr;
    }
  }
  --events_;
  --link.pending;
  return job;
}

void ZrJobRegistry::DeliveryLoop(unsigned shift) {
  std::list<Entry> taken;
  for (;;) {
    ZrJob* claimed = nullptr;
    {
      const ZrLock hold(lock_);
      wake_.Wait(lock_, [&]() ZR_REQUIRES(lock_) { return IsOver(shift) || !queue_.empty(); });
      if (queue_.empty()) return;  // what is left for nobody is dropped first
      if (!drain_ && !IsOver(shift)) {
        wake_.WaitFor(lock_, kNoticePause,
                      [&]() ZR_REQUIRES(lock_) { return IsOver(shift) || drain_; });
        drain_ = true;
      }
      if (stopping_) return;
      if (queue_.empty()) continue;
      claimed = TakeFront(taken);
    }
    if (claimed) Hand(*claimed, taken.front().target, {&taken.front().event, 1});
    taken.clear();
  }
}
