#include "transceiver/write_pass.h"

#include "transceiver/receive_pass.h"

ZrWritePass::ZrWritePass(const ZrClock& clock, std::size_t sendBudget)
    : clock_(clock),
      files_(ZrReceivePass::IsUnderWay() ? ZrSendQueue::Files::kAtHand
                                         : ZrSendQueue::Files::kMayWait),
      budget_(files_ == ZrSendQueue::Files::kAtHand ? kBudget : sendBudget),
      end_(clock.MonotonicNs() + kLongest) {}
