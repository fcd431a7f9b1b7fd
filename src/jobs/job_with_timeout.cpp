#include "jobs/job_with_timeout.h"

ZrJobWithTimeout::ZrJobWithTimeout(std::uint64_t timeLimitUs, const ZrClock& clock)
    : timeLimit_(timeLimitUs), deadline_(timeLimitUs, clock) {}

void ZrJobWithTimeout::Touch() {
  if (timing_) deadline_.Restart(timeLimit_);
}

bool ZrJobWithTimeout::HasExpired() {
  // Of several threads that see the expiry at the same time, the one that clears the flag reports.
  if (timing_ && deadline_.Expired() && timing_.exchange(false)) return true;
  timing_ = true;
  return false;
}
