#include <exception>
#include <new>
#include <utility>

#include "jobs/job.h"
#include "jobs/job_link.h"
#include "jobs/job_registry.h"

// How jobs end, and how the registry does.

/// Ends the registry's threads when the library is unloaded or the process exits, but not in a
/// forked child, which has none of them and may have the lock from a thread that it has not either.
/// The registry itself is not destroyed: at exit the host's threads may still be calling it.
struct ZrJobRegistry::Holder {
  alignas(ZrJobRegistry) static inline unsigned char storage[sizeof(ZrJobRegistry)];
  static ZrJobRegistry& Registry() {
    return *std::launder(reinterpret_cast<ZrJobRegistry*>(storage));
  }

  Holder() { new (storage) ZrJobRegistry; }
  ~Holder() {
    if (!zr::IsForkOfThreads()) Registry().Shutdown();
  }
  Holder(const Holder&) = delete;
  Holder& operator=(const Holder&) = delete;
};

ZrJobRegistry& ZrJobRegistry::Instance() {
  static const Holder holder;
  return Holder::Registry();
}

void ZrJobRegistry::Shutdown() noexcept {
  {
    const ZrLock hold(lock_);
    stopping_ = true;
  }
  EndThreads();
  ReleaseTables();
}

bool ZrJobRegistry::Rest() noexcept {
  if (OnDeliveringThread() || zr::IsForkOfThreads()) return false;
  WaitForReaper();
  return EndThreads();
}

// A job that comes behind that finds no thread here, and starts others.
bool ZrJobRegistry::EndThreads() noexcept {
  ZrThread delivery;
  ZrThread reaper;
  {
    const ZrLock hold(lock_);
    if (!stopping_ && jobs_.Size() != 0) return false;
    ++shift_;
    wake_.NotifyAll();
    reap_.NotifyAll();
    delivery = std::move(delivery_);
    reaper = std::move(reaper_);
  }
  delivery.Join();
  reaper.Join();
  return true;
}

bool ZrJobRegistry::Reap(ZrJob* job) noexcept {
  const ZrLock hold(lock_);
  if (stopping_) return false;
  job->nextReaped_ = std::exchange(reaped_, job);
  ++handedCount_;
  reap_.NotifyOne();
  try {
    if (!reaper_.Joinable())
      reaper_ = ZrThread::Start(
          "zr-reaper", [this, shift = shift_] { ReaperLoop(shift); });
  } catch (const std::exception&) {
    // The job waits until a thread can be had.
  }
  return true;
}

void ZrJobRegistry::ReaperLoop(unsigned shift) {
  for (;;) {
    ZrJob* chain = nullptr;
    {
      const ZrLock hold(lock_);
      reap_.Wait(lock_, [&]() ZR_REQUIRES(lock_) { return IsOver(shift) || reaped_; });
      chain = std::exchange(reaped_, nullptr);
    }
    if (!chain) return;
    EndReaped(chain);
  }
}

void ZrJobRegistry::EndReaped(ZrJob* chain) noexcept {
  ZrJob* inOrder = nullptr;
  while (chain) {
    ZrJob* const job = std::exchange(chain, chain->nextReaped_);
    job->nextReaped_ = std::exchange(inOrder, job);
  }
  while (inOrder) {
    ZrJob::End(std::exchange(inOrder, inOrder->nextReaped_));
    const ZrLock hold(lock_);
    ++reapedCount_;
    reapedAll_.NotifyAll();
  }
}

void ZrJobRegistry::WaitForReaper() {
  ZrJob* chain = nullptr;
  {
    const ZrLock hold(lock_);
    if (!reaper_.Joinable()) chain = std::exchange(reaped_, nullptr);  // there was no thread for it
  }
  EndReaped(chain);
  const ZrLock hold(lock_);
  const std::size_t handed = handedCount_;
  reapedAll_.Wait(lock_, [this, handed]() ZR_REQUIRES(lock_) { return reapedCount_ >= handed; });
}

void ZrJob::End(ZrJob* job) noexcept {
  if (ZrJobRegistry::OnDeliveringThread() && ZrJobRegistry::Instance().Reap(job)) return;
  job->Retire();
  delete job;
}
