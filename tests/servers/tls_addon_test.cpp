#include "servers/tls_addon.h"

#include <gtest/gtest.h>

#include "tests/support/raw_client.h"
#include "tests/support/server_bed.h"

namespace {

TEST(TlsAddon, WithoutAContextEveryPeerIsClosedAndTheNextOneAccepted) {
  const ZrTransceiverServerL1_SSLAddon other{ZrTransceiverServerL1_SSLAddon::ClientForm{}};
  zrtest::ServerBed bed;
  const int port = bed.Open(zr::kProtocolHttps, {{"cacertificate", "no"}, {"privatekey", "no"}});
  for (int peer = 0; peer < 2; ++peer) {
    bool ended = false;
    EXPECT_EQ(zrtest::RawClient(port).ReadToEnd(&ended), "");
    EXPECT_TRUE(ended);
  }
}

}  // namespace
