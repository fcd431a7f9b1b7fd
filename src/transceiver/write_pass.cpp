#include "transceiver/write_pass.h"

#include "transceiver/receive_pass.h"

ZrWritePass::ZrWritePass(const ZrClock& clock)
    : clock_(clock),
      files_(ZrReceivePass::IsUnderWay() ? ZrSendQueue::Files::kAtHand
                                         : ZrSendQueue::Files::kMayWait),
      end_(clock.MonotonicNs() + kLongest) {}
