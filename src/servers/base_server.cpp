#include "servers/base_server.h"

#include "jobs/job_event.h"

bool ZrTransceiverServerL0::ReceiveEvent(const ZrJobEvent& event) {
  if (event.code == kZrEventClosed && !persistent_) StopTiming();
  if (event.code == kZrEventDataArrived) wake(event.jobName);
  return true;
}
