#pragma once
// A transceiver with nothing above it: connections, and no servers.

#include "base/memory_budget.h"
#include "jobs/scheduler.h"
#include "tests/support/manual_clock.h"
#include "tests/support/wait.h"
#include "transceiver/connection.h"
#include "transceiver/transceiver.h"

namespace zrtest {

struct TransceiverBed {
  explicit TransceiverBed(const ZrClock& clock = ZrClock::System(),
                          std::uint64_t memoryLimit = ZrMemoryBudget::DefaultLimit())
      : transceiver(scheduler, {}, clock, memoryLimit) {}
  bool WaitForConnections(std::size_t count) {
    return WaitFor([&] { return transceiver.ConnectionCount() == count; });
  }
  static void Finish(ZrTransceiver& owner, ZrTransceiverConnection* connection) {
    owner.FinishConnection(*connection);
  }

  ZrRinvalScheduler2 scheduler;
  ZrTransceiver transceiver;
};

}  // namespace zrtest
