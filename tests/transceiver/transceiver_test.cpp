#include "transceiver/transceiver.h"

#include <gtest/gtest.h>

#include <utility>

#include "tests/jobs/recording_job.h"
#include "tests/support/raw_client.h"
#include "tests/transceiver/transceiver_bed.h"

namespace {

using namespace std::chrono_literals;
using namespace zrtest;

// Keeps the events it gets.
class EventCatcher : public RecordingJob {
 public:
  EventCatcher() { CreateJoinedTask("catcher"); }
  std::string Codes() {
    std::string codes;
    for (const ZrJobEvent& event : Received(0)) codes += std::to_string(event.code) + " ";
    return codes;
  }
};

// One registered connection to a raw client, its events caught.
template <class Connection = ZrTransceiverConnection>
struct LineOf {
  explicit LineOf(TransceiverBed& bed) {
    auto socket = Accepted([this](int port) { client = std::make_unique<RawClient>(port); });
    connection = zr::MakeJob<Connection>(bed.transceiver, receiver->JobName(), peer->JobName(),
                                         ZrServerCallback_t{}, &TransceiverBed::Finish);
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
using Line = LineOf<>;

/// To which somebody adds bytes when the send job has just found none.
class Late : public ZrTransceiverConnection {
 public:
  using ZrTransceiverConnection::ZrTransceiverConnection;
  Output WriteToSocket(ZrSocketIPvx& socket) override ZR_REQUIRES(lock_) {
    const Output output = ZrTransceiverConnection::WriteToSocket(socket);
    if (output == Output::kIdle && !std::exchange(added_, true)) {
      ZrStringBuf more;
      more.Append("more");
      SendBuffer(std::move(more));
    }
    return output;
  }

 private:
  bool added_ ZR_GUARDED_BY(lock_) = false;
};

TEST(Transceiver, WhatIsAddedWhileNothingIsThereToSendIsSent) {
  TransceiverBed bed;
  LineOf<Late> line(bed);
  line.Send(std::string(16 << 20, 'a'));  // more than the sockets take
  bed.transceiver.FlushConnection(*line.connection);
  line.connection->DropQueue();  // as if another thread had got it all out meanwhile
  EXPECT_TRUE(line.client->ReadUntil("more").ends_with("more"));
  EXPECT_EQ(bed.transceiver.ConnectionCount(), 1u);
}

TEST(Transceiver, ShortMemoryPausesThoseWithMuchAndGivesUpTheNewestThatStandsStill) {
  ManualClock clock;
  TransceiverBed bed(clock, 300'000);
  const auto holds = [](Line& line, std::uint64_t bytes) {
    return WaitFor([&] { return line.connection->HeldInput() == bytes; });
  };
  Line first(bed);
  first.client->Send(std::string(200'000, 'a'));
  ASSERT_TRUE(holds(first, 200'000));
  Line second(bed);
  second.client->Send(std::string(200'000, 'b'));
  ASSERT_TRUE(WaitFor([&] { return bed.transceiver.Memory()->Exceeded(); }));
  EXPECT_LT(second.connection->HeldInput(), 110'000u);
  first.client->Send(std::string(50'000, 'a'));
  Line small(bed);
  small.client->Send(std::string(10'000, 'c'));
  EXPECT_TRUE(holds(small, 10'000));
  EXPECT_EQ(bed.transceiver.ConnectionCount(), 3u);
  bed.Pass(clock, 61s);
  EXPECT_TRUE(bed.WaitForConnections(2));
  EXPECT_TRUE(WaitFor([&] { return second.receiver->Codes() == "8 2 "; }));
  EXPECT_TRUE(holds(first, 250'000));  // there is room again: the rest of it is read
  ZrStringBuf taken;
  first.connection->TakeReceived(taken);
  EXPECT_LT(bed.transceiver.Memory()->Used(), 20'000u);
}

TEST(Transceiver, EndsConnectionsThatAreSilentTooLong) {
  ManualClock clock;
  TransceiverBed bed(clock);
  Line silent(bed);
  Line busy(bed);
  bed.Pass(clock, 59s);
  busy.client->Send("x");
  ASSERT_TRUE(WaitFor([&] { return busy.connection->HasReceived(); }));
  bed.Pass(clock, 55s);  // 114 s
  EXPECT_EQ(bed.transceiver.ConnectionCount(), 2u);
  bed.Pass(clock, 2s);
  EXPECT_TRUE(bed.WaitForConnections(1));
  EXPECT_TRUE(WaitFor([&] { return silent.receiver->Codes() == "1 2 "; }));
  busy.Send("y");  // traffic in the other direction counts as well
  bed.transceiver.FlushConnection(*busy.connection);
  bed.Pass(clock, 114s);
  EXPECT_EQ(bed.transceiver.ConnectionCount(), 1u);
  bed.Pass(clock, 2s);
  EXPECT_TRUE(bed.WaitForConnections(0));
}

TEST(Transceiver, ARequestInProgressIsGivenTimeButNotForEver) {
  ManualClock clock;
  TransceiverBed bed(clock);
  Line answered(bed);
  Line forgotten(bed);
  ASSERT_TRUE(answered.connection->BeginItem());
  ASSERT_TRUE(forgotten.connection->BeginItem());
  for (int i = 0; i < 8; ++i) bed.Pass(clock, 100s);
  answered.Send("late");
  bed.transceiver.FlushConnection(*answered.connection);
  EXPECT_EQ(answered.client->ReadUntil("late"), "late");
  EXPECT_EQ(answered.connection->EndItem(), ZrTransceiverConnection::AfterItem::kNothing);
  bed.Pass(clock, 110s);
  EXPECT_TRUE(bed.WaitForConnections(1));
  EXPECT_TRUE(bed.transceiver.FindConnection(answered.name));
  bed.Pass(clock, 66s);
  EXPECT_TRUE(bed.WaitForConnections(0));
}

TEST(Transceiver, ALingeringPeerIsLetGo) {
  ManualClock clock;
  TransceiverBed bed(clock);
  Line line(bed);
  line.connection->Close();
  EXPECT_EQ(line.client->ReadToEnd(), "");  // shut down for sending; the client keeps its side open
  const std::int64_t soon = clock.MonotonicNs() + 3'000'000'000;
  EXPECT_TRUE(WaitFor([&] { return line.connection->NextExpiryNs() <= soon; }));
  EXPECT_EQ(bed.transceiver.ConnectionCount(), 1u);
  bed.Pass(clock, 3s);
  EXPECT_TRUE(bed.WaitForConnections(0));
}

}  // namespace
