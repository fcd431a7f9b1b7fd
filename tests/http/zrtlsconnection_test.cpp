// TLS connections in a running transceiver, against the client side of the engine.

#include "http/zrtlsconnection.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "host/zrexception.h"
#include "http/zrssladdon.h"
#include "net/zrsocketipvx.h"
#include "tests/support/server_bed.h"
#include "tests/support/temporary_folder.h"

using namespace std::chrono_literals;
using zrtest::ManualClock;
using zrtest::ServerBed;
using zrtest::WaitFor;

namespace {

std::shared_ptr<ZrXServerHeader> Configuration(const std::string& certificate,
                                               const std::string& key) {
  auto head = zr::MakeJob<ZrXServerHeader>(true, 4U);
  head->SetOption("cacertificate", certificate);
  head->SetOption("privatekey", key);
  return head;
}

std::shared_ptr<ZrXServerHeader> GoodConfiguration() {
  const auto& files = zrtest::TestCertificate();
  return Configuration(files.certificate, files.privateKey);
}

// A registered server-side connection and a raw socket that is connected to it.
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
  }
  void Connect() {
    client = std::make_unique<ZrTlsEngine>(context.get(), socket.primaryDescriptor(),
                                           ZrTlsEngine::Side::kClient);
    client->ConnectWithin(20s);
  }
  void Send(std::string_view bytes) {
    while (!bytes.empty()) {
      const ZrTlsResult result = client->Write(bytes, bytes.size() > ZrTlsEngine::kRecord);
      ASSERT_NE(result.status, ZrTlsStatus::kFailed);
      bytes.remove_prefix(result.count);
      if (result.status == ZrTlsStatus::kWantWrite) {
        ASSERT_EQ(zr::WaitWritable(socket.primaryDescriptor(), 20s), ZrWaitStatus::kReady);
      }
    }
    while (client->Flush() == ZrTlsStatus::kWantWrite) {
      ASSERT_EQ(zr::WaitWritable(socket.primaryDescriptor(), 20s), ZrWaitStatus::kReady);
    }
  }
  /// Reads until the server's end mark; `orderly` is false when the stream ended without one.
  std::string ReadToEnd(bool& orderly) {
    std::string all;
    char bytes[ZrTlsEngine::kRecord];
    for (;;) {
      const ZrTlsResult result = client->Read(bytes);
      all.append(bytes, result.count);
      orderly = result.status == ZrTlsStatus::kClosed;
      if (orderly || result.status == ZrTlsStatus::kFailed) return all;
      if (result.status == ZrTlsStatus::kWantRead &&
          !socket.waitReadable(20'000, socket.primaryDescriptor())) {
        return all;
      }
    }
  }

  ZrTransceiverServerL1_SSLAddon addon{*GoodConfiguration()};
  ZrTlsContextPtr context = zr::MakeTlsClientContext();
  ZrSocketIPvx socket;
  std::shared_ptr<ZrTransceiverConnection_SSLAddon> connection;
  std::unique_ptr<ZrTlsEngine> client;
};

// First in this program: whether a failure is thrown depends on what was built before. It runs in a
// process of its own, so the order of the tests does not matter.
TEST(TlsAddonDeathTest, OnlyTheFirstAddonOfAProcessThrows) {
  const auto first = [] {
    const auto fails = [](const ZrXServerHeader& head) {
      try {
        return ZrTransceiverServerL1_SSLAddon(head).HasContext() ? "serves" : "refuses";
      } catch (const ZrException_SSL& failure) {
        return std::string_view(failure.what()) ==
                       "(SSL) can't find ca certificate and/or private key"
                   ? "throws"
                   : "throws something else";
      }
    };
    const auto bad = Configuration("", "key.pem");
    std::string said = fails(*bad);
    said += std::string(" ") + fails(*bad);  // a failed one does not count
    said += std::string(" ") + fails(*GoodConfiguration());
    said += std::string(" ") + fails(*bad);  // one that is gone again does
    said += " " + std::to_string(ZrTransceiverServerL1_SSLAddon::Count());
    const ZrTransceiverServerL1_SSLAddon client{ZrTransceiverServerL1_SSLAddon::ClientForm{}};
    said += " " + std::to_string(ZrTransceiverServerL1_SSLAddon::Count());
    std::fputs(said.c_str(), stderr);
    std::_Exit(0);
  };
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(first(), testing::ExitedWithCode(0), "throws throws serves .*refuses 1 2");
}

TEST(TlsAddon, WithoutAContextNoConnectionIsMade) {
  ServerBed bed;
  const ZrTransceiverServerL1_SSLAddon other{ZrTransceiverServerL1_SSLAddon::ClientForm{}};
  ZrTransceiverServerL1_SSLAddon addon{*Configuration("no.pem", "no.pem")};
  try {
    addon.CreateConnection(bed.transceiver, "", "", {}, std::make_shared<ZrSocketIPvx>());
    FAIL() << "would serve without TLS";
  } catch (const ZrException& failure) {
    EXPECT_STREQ(failure.what(), "Error getting SSL context");
  }
}

TEST(TlsConnection, SendsAllQueuedBytesAndOneEndMarkBeforeItCloses) {
  ServerBed bed;
  Line line(bed);
  line.Connect();
  std::string expected;
  for (int i = 0; i < 60; ++i) {
    const std::string piece(static_cast<std::size_t>(i * i) * 97, static_cast<char>('a' + i % 26));
    std::size_t accepted = 0;
    line.connection->SendBytes(piece.data(), piece.size(), accepted);
    expected += piece;
    if (i % 7 == 0) bed.transceiver.FlushConnection(*line.connection);
  }
  line.connection->Close();
  bool orderly = false;
  EXPECT_TRUE(line.ReadToEnd(orderly) == expected);
  EXPECT_TRUE(orderly);
  line.client->Shutdown();
  zr::ShutdownSend(line.socket.primaryDescriptor());
  EXPECT_TRUE(bed.WaitForConnections(0));
}

// Reading pauses above a mark and goes on when the bytes are taken, also when TLS has everything
// from the socket already, so that no readiness will ever be reported.
TEST(TlsConnection, ReadsOnAfterAPauseToTheLastByte) {
  ServerBed bed;
  Line line(bed);
  line.Connect();
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

TEST(TlsConnection, APeerStuckInTheHandshakeGoesAfterTheLimitOfAHead) {
  ManualClock clock;
  ServerBed bed(clock);
  Line stuck(bed);
  Line done(bed);
  done.Connect();
  ASSERT_TRUE(WaitFor([&] { return done.connection->NextExpiryNs() > 62'000'000'000; }))
      << "the finished handshake is no incomplete head any more";
  clock.Advance(std::chrono::nanoseconds(ZrTransceiverConnection::kHeadTimeLimit) + 1s);
  bed.transceiver.WakeHousekeeper();
  EXPECT_TRUE(bed.WaitForConnections(1));
  EXPECT_EQ(bed.transceiver.FindConnection(stuck.connection->JobName()), nullptr);
}

TEST(TlsConnection, GarbageInsteadOfAHandshakeEndsIt) {
  ServerBed bed;
  Line line(bed);
  std::size_t sent = 0;
  line.socket.send("GET / HTTP/1.1\r\n\r\n", 18, sent);
  EXPECT_TRUE(bed.WaitForConnections(0));
}

}  // namespace
