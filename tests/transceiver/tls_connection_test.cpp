// TLS connections in a running transceiver, against the client side of the engine.

#include "transceiver/tls_connection.h"

#include <gtest/gtest.h>

#include <optional>

#include "net/tcp_socket.h"
#include "servers/tls_addon.h"
#include "tests/support/raw_client.h"
#include "tests/support/server_bed.h"
#include "tests/support/temporary_folder.h"

using namespace std::chrono_literals;
using zrtest::ServerBed;
using zrtest::WaitFor;

namespace {

std::shared_ptr<ZrXServerHeader> Configuration() {
  auto head = zr::MakeJob<ZrXServerHeader>(true, zr::kProtocolHttps);
  head->SetOption("cacertificate", zrtest::TestCertificate().certificate);
  head->SetOption("privatekey", zrtest::TestCertificate().privateKey);
  return head;
}

// A registered server-side connection and a client that is connected to it.
struct Line {
  explicit Line(ServerBed& bed) {
    ZrSocketIPvx listener;
    int port = 0;
    EXPECT_EQ(listener.listen("", port, 4), ZrSocketResult::kSuccess);
    EXPECT_EQ(socket.connect("127.0.0.1", port), ZrSocketResult::kSuccess);
    auto accepted = std::make_shared<ZrSocketIPvx>(1);
    EXPECT_GE(listener.accept(*accepted, 10'000, [](ZrHostInfo_t&) { return true; }), 0);
    connection = addon.CreateConnection(bed.transceiver, "nobody", "nobody", {}, accepted);
    bed.transceiver.AddConnection(accepted, connection);
    client.emplace(context.get(), socket.Line(), ZrTlsEngine::Side::kClient);
    client->ConnectWithin(20s);
  }
  void Send(std::string_view record) {
    EXPECT_EQ(client->Write(record, false).count, record.size());
    while (client->Flush() == ZrTlsWriteStatus::kWantWrite) {
      ASSERT_EQ(zr::WaitWritable(socket.primaryDescriptor(), 20s), ZrWaitStatus::kReady);
    }
  }

  ZrTransceiverServerL1_SSLAddon addon{*Configuration()};
  ZrTlsContextPtr context = zr::MakeTlsClientContext();
  ZrSocketIPvx socket;
  std::shared_ptr<ZrTransceiverConnection_SSLAddon> connection;
  std::optional<ZrTlsEngine> client;
};

TEST(TlsAddon, WithoutAContextEveryPeerIsClosedAndTheNextOneAccepted) {
  const ZrTransceiverServerL1_SSLAddon other{ZrTransceiverServerL1_SSLAddon::ClientForm{}};
  ServerBed bed;
  const int port = bed.Open(zr::kProtocolHttps, {{"cacertificate", "no"}, {"privatekey", "no"}});
  for (int peer = 0; peer < 2; ++peer) {
    bool ended = false;
    EXPECT_EQ(zrtest::RawClient(port).ReadToEnd(&ended), "");
    EXPECT_TRUE(ended);
  }
}

// Reading pauses above a mark and goes on when the bytes are taken, also when TLS has everything
// from the socket already, so that no readiness will ever be reported.
TEST(TlsConnection, ReadsOnAfterAPauseToTheLastByte) {
  ServerBed bed;
  Line line(bed);
  const std::string record(997, 'x');
  const std::size_t reached = ZrTransceiverConnection::kReadMark / record.size() + 1;
  for (std::size_t i = 0; i < reached - 13; ++i) line.Send(record);
  // The last ones arrive together; the mark lies in the middle of them.
  for (int i = 0; i < 15; ++i) line.client->Write(record, true);
  line.Send(record);
  ASSERT_TRUE(WaitFor([&] { return line.connection->IsReadingPaused(); }));
  const std::size_t expected = (reached + 3) * record.size();
  std::size_t total = 0;
  EXPECT_TRUE(WaitFor([&] {
    ZrStringBuf taken;
    line.connection->TakeReceived(taken);
    EXPECT_LE(taken.Size(), ZrTransceiverConnection::kReadMark + ZrTlsEngine::kRecord);
    total += taken.Size();
    return total == expected;
  })) << total
      << " of " << expected;
}

}  // namespace
