// TLS connections: step by step over a line in memory, and in a running transceiver.

#include "transceiver/tls_connection.h"

#include <gtest/gtest.h>

#include <optional>

#include "net/tls_context.h"
#include "tests/support/raw_client.h"
#include "tests/support/scripted_line.h"
#include "tests/support/temporary_folder.h"
#include "tests/support/tls_peer.h"
#include "tests/transceiver/transceiver_bed.h"

using namespace std::chrono_literals;
using zrtest::TransceiverBed;
using zrtest::WaitFor;

namespace {

ZrTlsContextPtr ServerContext() {
  const auto& files = zrtest::TestCertificate();
  return zr::MakeTlsServerContext(files.certificate, files.privateKey);
}

std::shared_ptr<ZrTransceiverConnection_SSLAddon> ServerSide(TransceiverBed& bed,
                                                             std::shared_ptr<ZrSocketIPvx> socket) {
  return zr::MakeJob<ZrTransceiverConnection_SSLAddon>(
      ServerContext().get(), std::move(socket), bed.transceiver, "nobody", "nobody",
      ZrServerCallback_t{}, &TransceiverBed::Finish);
}

// A registered server-side connection and a client that is connected to it.
struct Line {
  explicit Line(TransceiverBed& bed) {
    auto accepted = zrtest::Accepted([this](int port) {
      EXPECT_EQ(socket.connect("127.0.0.1", port), ZrSocketResult::kSuccess);
    });
    connection = ServerSide(bed, accepted);
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

  ZrTlsContextPtr context = zr::MakeTlsClientContext();
  ZrSocketIPvx socket;
  std::shared_ptr<ZrTransceiverConnection_SSLAddon> connection;
  std::optional<ZrTlsEngine> client;
};

// A server's connection that nobody serves but the test, and its client.
struct Stepped {
  using Output = ZrTransceiverConnection::Output;

  Stepped() {
    for (int step = 0; step < 4; ++step) {
      peer.Handshake();
      Read();
    }
  }
  int Read() { return connection->ReadFromSocket(*socket); }
  void Send(std::string_view bytes) {
    std::size_t accepted = 0;
    connection->SendBytes(bytes.data(), bytes.size(), accepted);
  }
  Output Write() {
    const ZrLock hold(connection->Lock());
    return connection->WriteToSocket(*socket);
  }
  bool WantsOutput() {
    const ZrLock hold(connection->Lock());
    return connection->WantsOutput();
  }

  zrtest::ManualClock clock;  // a pass of writing may be over by its time, too
  TransceiverBed bed{clock};
  zrtest::ScriptedLine line;
  zrtest::TlsPeer peer{line};
  std::shared_ptr<ZrSocketIPvx> socket = std::make_shared<ZrSocketIPvx>(line);
  std::shared_ptr<ZrTransceiverConnection> connection = ServerSide(bed, socket);
};

TEST(TlsConnection, AnAnswerToAPeerThatHasGoneIsTheEnd) {
  for (const std::string way : {"end mark", "end of the stream", "end in a record"}) {
    SCOPED_TRACE(way);
    for (const bool reset : {false, true}) {
      Stepped line;
      line.peer.Send("request");
      EXPECT_EQ(line.Read(), 7);
      if (way == "end mark") line.peer.Goodbye();
      if (way == "end in a record") line.line.input = "\x17\x03\x03";
      line.line.ended = way != "end mark";
      EXPECT_EQ(line.Read(), 0);
      line.Send("answer");
      if (reset) line.line.failSendAt = line.line.sends + 1;
      EXPECT_EQ(line.Write(), reset ? Stepped::Output::kDead : Stepped::Output::kMoved);
      EXPECT_EQ(line.Read(), reset ? -1 : 0);
      EXPECT_EQ(line.peer.Read(), reset ? "" : "answer");
    }
  }
}

TEST(TlsConnection, WaitsForRoomOnlyWhenTheSocketRefused) {
  Stepped line;
  const std::string answer(300'000, 'x');
  EXPECT_FALSE(line.WantsOutput());
  EXPECT_EQ(line.Write(), Stepped::Output::kIdle);
  line.Send(answer);
  line.line.room = 1000;
  EXPECT_EQ(line.Write(), Stepped::Output::kMoved);
  EXPECT_TRUE(line.WantsOutput());
  EXPECT_EQ(line.Write(), Stepped::Output::kRefused);
  EXPECT_EQ(line.Read(), 1);  // reading does not wait for the room
  line.line.room = zrtest::ScriptedLine::kUnlimited;
  EXPECT_EQ(line.Write(), Stepped::Output::kMoved);
  EXPECT_FALSE(line.WantsOutput());
  EXPECT_EQ(line.Write(), Stepped::Output::kIdle);
  std::size_t read = 0;
  for (std::string text; !(text = line.peer.Read()).empty();) read += text.size();
  EXPECT_EQ(read, answer.size());
}

TEST(TlsConnection, ATurnThatIsUsedUpGoesOnInTheNextOne) {
  Stepped line;
  line.peer.Send(std::string(1000, 'x'));
  line.line.piece = 1;
  int turns = 0;
  for (; !line.connection->HasReceived(); ++turns) {
    ASSERT_LT(turns, 10);
    EXPECT_GT(line.Read(), 0);
    EXPECT_NE(line.connection->HasBufferedInput(), line.connection->HasReceived());
  }
  EXPECT_EQ(turns, 4);
}

// Reading pauses above a mark and goes on when the bytes are taken, also when TLS has everything
// from the socket already, so that no readiness will ever be reported.
TEST(TlsConnection, ReadsOnAfterAPauseToTheLastByte) {
  TransceiverBed bed;
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

// A server that says goodbye along with the end of its handshake: our side reads both at once, and
// the socket never announces anything again.
TEST(TlsConnection, SeesTheEndThatCameWithTheHandshake) {
  zrtest::ScriptedLine near;
  zrtest::ScriptedLine far;
  TransceiverBed bed;
  zrtest::ScriptedLine::Join(near, far);
  ZrTlsEngine server(ServerContext().get(), far, ZrTlsEngine::Side::kServer);
  // The server takes its step when the client asks whether it shall go on.
  const auto answer = [&] {
    server.Handshake();
    near.input += std::string_view("\x15\x03\x03\x00\x02\x01\x00", 7);
    return false;
  };
  const auto connection = zr::MakeJob<ZrTransceiverConnection_SSLAddon>(
      zr::MakeTlsClientContext().get(), ZrTlsPeer{.name = {}, .cancelled = answer},
      std::make_shared<ZrSocketIPvx>(near), bed.transceiver, "nobody", "nobody",
      ZrServerCallback_t{}, &TransceiverBed::Finish);
  EXPECT_TRUE(near.input.empty());
  std::optional<zrtest::RawClient> peer;
  const auto silent = zrtest::Accepted([&peer](int port) { peer.emplace(port); });
  bed.transceiver.AddConnection(silent, connection);
  EXPECT_TRUE(WaitFor([&] { return !connection->IsListed(); }));
}

}  // namespace
