#include "servers/zrtransceiverserverl0.h"

#include "jobs/zrjobevent.h"

bool ZrTransceiverServerL0::ReceiveEvent(const ZrJobEvent& event) {
  if (event.code == kZrEventClosed && !persistent_) StopTiming();
  if (event.code == kZrEventDataArrived) wake(event.jobName);
  return true;
}
