#include "servers/base_server.h"

#include "jobs/job_event.h"
#include "transceiver/connection.h"
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

std::shared_ptr<ZrTransceiverConnection> ZrTransceiverServerL0::OwnConnection() const {
  std::shared_ptr<ZrTransceiverConnection> connection;  // let go without the lock
  {
    ZrLock hold(lock_);
    connection = ownConnection_.lock();
  }
  return connection && connection->IsListed() ? connection : nullptr;
}

void ZrTransceiverServerL0::SetOwnConnection(
    const std::shared_ptr<ZrTransceiverConnection>& connection) {
  SetResult(connection->JobName());
  ZrLock hold(lock_);
  ownConnection_ = connection;
}
