#pragma once
// A transceiver with nothing above it: connections, and no servers.

#include <gtest/gtest.h>

#include "base/memory_budget.h"
#include "jobs/scheduler.h"
#include "net/tcp_socket.h"
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
  /// Time passes on the bed's clock, and the housekeeper looks.
  void Pass(ManualClock& clock, std::chrono::nanoseconds time) {
    clock.Advance(time);
    transceiver.WakeHousekeeper();
  }
  static void Finish(ZrTransceiver& owner, ZrTransceiverConnection* connection) {
    owner.FinishConnection(*connection);
  }

  ZrRinvalScheduler2 scheduler;
  ZrTransceiver transceiver;
};

/// The server's end of the connection that a client makes to the port it is given.
template <class Connect>
std::shared_ptr<ZrSocketIPvx> Accepted(Connect connect) {
  ZrSocketIPvx listener(0);
  int port = 0;
  EXPECT_EQ(listener.listen("", port, 4), ZrSocketResult::kSuccess);
  connect(port);
  auto accepted = std::make_shared<ZrSocketIPvx>(1);
  EXPECT_GE(listener.accept(*accepted, 10'000, [](ZrHostInfo_t&) { return true; }), 0);
  return accepted;
}

}  // namespace zrtest
