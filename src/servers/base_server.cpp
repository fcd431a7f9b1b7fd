#include "servers/base_server.h"

#include "jobs/job_event.h"
#include "transceiver/transceiver.h"

bool ZrTransceiverServerL0::ReceiveEvent(const ZrJobEvent& event) {
  if (event.code == kZrEventClosed && !persistent_) StopTiming();
  if (event.code != kZrEventDataArrived) return true;
  try {
    wake(event.jobName);
  } catch (...) {
    // Without memory for it nobody would ever come for these bytes, and no other event tells of
    // them.
    if (ZrTransceiver* const transceiver = Transceiver())
      transceiver->RemoveConnection(event.jobName);
  }
  return true;
}
