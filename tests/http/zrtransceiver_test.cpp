#include "http/zrtransceiver.h"

#include <gtest/gtest.h>

#include "host/zrexception.h"
#include "jobs/zrjobregistry.h"
#include "net/zrsocketipvx.h"
#include "tests/support/raw_client.h"
#include "tests/support/server_bed.h"

namespace {

using namespace std::chrono_literals;
using zrtest::ManualClock;
using zrtest::RawClient;
using zrtest::ServerBed;
using zrtest::WaitFor;

// Keeps the codes of the events it gets, and whom they are about.
class EventCatcher : public ZrJob {
 public:
  EventCatcher() { CreateJoinedTask("catcher"); }
  bool ReceiveEvent(const ZrJobEvent& event) override ZR_REQUIRES(lock_) {
    codes_ += std::to_string(event.code) + " ";
    about_ = event.jobName;
    return true;
  }
  std::string Codes() {
    ZrLock hold(lock_);
    return codes_;
  }
  std::string About() {
    ZrLock hold(lock_);
    return about_;
  }

 private:
  std::string codes_ ZR_GUARDED_BY(lock_);
  std::string about_ ZR_GUARDED_BY(lock_);
};

// One registered connection to a raw client, its events caught.
struct Line {
  explicit Line(ServerBed& bed, int receiveWindow = 0) {
    ZrSocketIPvx listener(0);
    int port = 0;
    EXPECT_EQ(listener.listen("", port, 4), ZrSocketResult::kSuccess);
    client = std::make_unique<RawClient>(port, receiveWindow);
    auto socket = std::make_shared<ZrSocketIPvx>(1);
    EXPECT_GE(listener.accept(*socket, 5000, [](ZrHostInfo_t&) { return true; }), 0);
    connection = zr::MakeJob<ZrTransceiverConnection>(
        bed.transceiver, receiver->JobName(), peer->JobName(), ZrServerCallback_t{},
        [](ZrTransceiver& owner, ZrTransceiverConnection* c) { owner.FinishConnection(*c); });
    connection->CreateJoinedTask("keeps it listed");
    name = bed.transceiver.AddConnection(std::move(socket), connection);
  }
  void Send(const std::string& bytes) {
    std::size_t accepted = 0;
    connection->SendBytes(bytes.data(), bytes.size(), accepted);
    EXPECT_EQ(accepted, bytes.size());
  }

  std::shared_ptr<EventCatcher> receiver = zr::MakeJob<EventCatcher>();
  std::shared_ptr<EventCatcher> peer = zr::MakeJob<EventCatcher>();
  std::unique_ptr<RawClient> client;
  std::shared_ptr<ZrTransceiverConnection> connection;
  std::string name;
};

TEST(Transceiver, RefusesHalfAConnectionAndKeepsTheFirstOfAName) {
  ServerBed bed;
  Line line(bed);
  try {
    bed.transceiver.AddConnection(nullptr, line.connection);
    FAIL() << "took a connection without a socket";
  } catch (const ZrException& failure) {
    EXPECT_STREQ(failure.what(), "socket and connection must be defined");
  }
  EXPECT_EQ(bed.transceiver.AddConnection(std::make_shared<ZrSocketIPvx>(1), line.connection),
            line.name);
  line.Send("still the first socket");
  bed.transceiver.WakeSender();
  EXPECT_EQ(line.client->ReadUntil("socket"), "still the first socket");
  EXPECT_EQ(bed.transceiver.ConnectionCount(), 1u);
}

TEST(Transceiver, TellsTheServerOncePerBatchAndTheThreeJobsOfTheEnd) {
  ServerBed bed;
  Line line(bed);
  line.client->Send("one");
  ASSERT_TRUE(WaitFor([&] { return line.receiver->Codes() == "8 "; }));
  EXPECT_EQ(line.receiver->About(), line.name);
  line.client->Send("two");
  ASSERT_TRUE(WaitFor([&] { return line.connection->HasReceived(); }));
  ZrStringBuf taken;
  EXPECT_TRUE(WaitFor([&] {
    line.connection->TakeReceived(taken);
    return taken.Unread() == "onetwo";
  }));
  line.client->Send("x");
  ASSERT_TRUE(WaitFor([&] { return line.connection->HasReceived(); }));
  line.connection->TakeReceived(taken);
  line.client->FinishSending();
  EXPECT_TRUE(bed.WaitForConnections(0));
  EXPECT_TRUE(WaitFor(
      [&] { return line.receiver->Codes().ends_with("2 ") && line.peer->Codes() == "2 "; }));
  EXPECT_EQ(line.peer->About(), line.name);
}

TEST(Transceiver, SendsInOrderToAReaderWhoTakesLittleAtATime) {
  ServerBed bed;
  Line line(bed, 4096);
  std::string expected;
  for (int i = 0; i < 40; ++i) {
    const std::string piece(500'000, static_cast<char>('a' + i % 26));
    line.Send(piece);
    expected += piece;
    bed.transceiver.FlushConnection(*line.connection);
  }
  EXPECT_GT(line.connection->QueuedBytes(), 0u) << "the socket took all; nothing was refused";
  line.connection->Close();
  EXPECT_EQ(line.client->ReadToEnd(), expected);
  line.client.reset();
  EXPECT_TRUE(bed.WaitForConnections(0));
}

TEST(Transceiver, ResetForgetsWhatWasReceivedAndQueued) {
  ServerBed bed;
  Line line(bed);
  line.client->Send("old");
  ASSERT_TRUE(WaitFor([&] { return line.connection->HasReceived(); }));
  line.Send("never sent");
  line.connection->Reset();
  EXPECT_FALSE(line.connection->HasReceived());
  EXPECT_FALSE(line.connection->SendPending());
  line.Send("new");
  bed.transceiver.FlushConnection(*line.connection);
  EXPECT_EQ(line.client->ReadUntil("new"), "new");
}

TEST(Transceiver, EndsConnectionsThatAreSilentTooLong) {
  ManualClock clock;
  ServerBed bed(clock);
  Line silent(bed);
  Line busy(bed);
  Line starts(bed);
  starts.connection->BeginHead();
  const auto advance = [&](std::chrono::seconds time) {
    clock.Advance(time);
    bed.transceiver.WakeHousekeeper();
  };
  advance(59s);
  EXPECT_EQ(bed.transceiver.ConnectionCount(), 3u);
  busy.client->Send("x");
  ASSERT_TRUE(WaitFor([&] { return busy.connection->HasReceived(); }));
  advance(2s);  // 61 s: the head that began at 0 is overdue
  EXPECT_TRUE(bed.WaitForConnections(2));
  EXPECT_EQ(starts.client->ReadToEnd(), "");
  advance(53s);  // 114 s
  EXPECT_EQ(bed.transceiver.ConnectionCount(), 2u);
  advance(2s);
  EXPECT_TRUE(bed.WaitForConnections(1));
  EXPECT_TRUE(WaitFor([&] { return silent.receiver->Codes() == "1 2 "; }));
  busy.Send("y");  // traffic in the other direction counts as well
  bed.transceiver.FlushConnection(*busy.connection);
  advance(114s);
  EXPECT_EQ(bed.transceiver.ConnectionCount(), 1u);
  advance(2s);
  EXPECT_TRUE(bed.WaitForConnections(0));
}

TEST(Transceiver, ARequestInProgressIsGivenTimeButNotForEver) {
  ManualClock clock;
  ServerBed bed(clock);
  Line answered(bed);
  Line forgotten(bed);
  const auto advance = [&](std::chrono::seconds time) {
    clock.Advance(time);
    bed.transceiver.WakeHousekeeper();
  };
  ASSERT_TRUE(answered.connection->BeginItem());
  ASSERT_TRUE(forgotten.connection->BeginItem());
  for (int i = 0; i < 8; ++i) advance(100s);
  answered.Send("late");
  bed.transceiver.FlushConnection(*answered.connection);
  EXPECT_EQ(answered.client->ReadUntil("late"), "late");
  EXPECT_EQ(answered.connection->EndItem(), ZrTransceiverConnection::AfterItem::kNothing);
  advance(110s);
  EXPECT_TRUE(bed.WaitForConnections(1));
  EXPECT_TRUE(bed.transceiver.FindConnection(answered.name));
  advance(66s);
  EXPECT_TRUE(bed.WaitForConnections(0));
}

TEST(Transceiver, WaitsForAnswersUntilTheyAreOutOrGivenUp) {
  ServerBed bed;
  Line line(bed);
  EXPECT_TRUE(bed.transceiver.WaitForAnswers(0s));
  ASSERT_TRUE(line.connection->BeginItem());
  EXPECT_FALSE(bed.transceiver.WaitForAnswers(1ms));
  std::thread ending([&] { line.connection->EndItem(); });
  EXPECT_TRUE(bed.transceiver.WaitForAnswers(60s));
  ending.join();
  ASSERT_TRUE(line.connection->BeginItem());
  std::thread giving([&] { bed.transceiver.AbandonAnswers(); });
  EXPECT_FALSE(bed.transceiver.WaitForAnswers(60s));
  giving.join();
}

TEST(Transceiver, ALingeringPeerIsLetGo) {
  ManualClock clock;
  ServerBed bed(clock);
  Line line(bed);
  line.connection->Close();
  EXPECT_EQ(line.client->ReadToEnd(), "");  // shut down for sending; the client keeps its side open
  EXPECT_EQ(bed.transceiver.ConnectionCount(), 1u);
  clock.Advance(3s);
  bed.transceiver.WakeHousekeeper();
  EXPECT_TRUE(bed.WaitForConnections(0));
}

TEST(Transceiver, SaysWhichProtocolsItDoesNotKnow) {
  ServerBed bed;
  testing::internal::CaptureStdout();
  auto unknown = zr::MakeJob<ZrXServerHeader>(true, zr::kProtocolFile);
  EXPECT_EQ(bed.transceiver.OpenServer(*bed.handler, unknown, bed.callback),
            ZrJob::CommonErrorName());
  auto message = zr::MakeJob<ZrXHeader>(ZrMessageType::kGet, zr::kProtocolQuarns);
  for (const auto kind : {ZrMessageKind::kResponse, ZrMessageKind::kRequest}) {
    message->kind = kind;
    EXPECT_EQ(bed.transceiver.Send(*bed.handler, message, bed.callback, "t", 1),
              ZrJob::CommonErrorName());
  }
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "unknown protocol!! (3)\nunknown protocol!! (1)\nunknown protocol!! (2)\n");
  EXPECT_TRUE(bed.Records(ZrServerCallback_t::kServerCreated).empty());
}

TEST(Transceiver, OpensAHeadOnceAndOnlyForItsOwnHandlers) {
  ServerBed bed;
  ASSERT_GT(bed.Open(zr::kProtocolHttp), 0);
  EXPECT_EQ(bed.opened, bed.configuration->JobName());
  EXPECT_EQ(bed.transceiver.OpenServer(*bed.handler, bed.configuration, bed.callback), bed.opened);
  const auto created = bed.Records(ZrServerCallback_t::kServerCreated);
  ASSERT_EQ(created.size(), 1u);
  EXPECT_EQ(created[0].info.Get("protocol"), "HTTP/HTTPS");
  EXPECT_EQ(created[0].info.Get("roll"), "server");
  EXPECT_TRUE(bed.transceiver.FindServer(created[0].info.Get("ID")));
  EXPECT_FALSE(bed.transceiver.AddClient(bed.handler)) << "registered a handler twice";
  const auto stranger = zr::MakeJob<zrtest::BedHandler>(bed);
  EXPECT_EQ(bed.transceiver.OpenServer(*stranger, bed.configuration, bed.callback),
            ZrJob::CommonErrorName());
}

TEST(Transceiver, PrintsOnlyLogLines) {
  ServerBed bed;
  testing::internal::CaptureStdout();
  ZrServerCallback_t record;
  record.info.Set("logging", "a line");
  record.kind = ZrServerCallback_t::kListening;
  bed.transceiver.PrintLogRecord(record);
  record.kind = ZrServerCallback_t::kMessageLogged;
  bed.transceiver.PrintLogRecord(record);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "a line\n");
}

}  // namespace
