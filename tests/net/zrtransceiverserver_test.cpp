#include "net/zrtransceiverserver.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include "jobs/zrjobregistry.h"
#include "net/zrsocketipvx.h"
#include "net/zrtransceiverserverl0socket.h"
#include "tests/support/raw_client.h"
#include "tests/support/server_bed.h"

namespace {

using namespace std::chrono_literals;
using zrtest::RawClient;
using zrtest::ServerBed;
using zrtest::WaitFor;

// Notes the items it is given.
class NotingServer : public ZrTransceiverServer {
 public:
  using ZrTransceiverServer::ZrTransceiverServer;
  void processItem(const std::string& key, const std::string& data) override {
    if (key == "throw") throw std::runtime_error("item");
    ZrLock hold(notesLock_);
    notes_ += key + "=" + data + " ";
  }
  std::string Notes() {
    ZrLock hold(notesLock_);
    return notes_;
  }

 private:
  ZrMutex notesLock_;
  std::string notes_ ZR_GUARDED_BY(notesLock_);
};

TEST(ServerBase, HandlesItemsInOrderAndEndsWithItsTasks) {
  ServerBed bed;
  auto server = zr::MakeServer<NotingServer>(bed.scheduler, bed.transceiver, "client", "head",
                                             "owner", bed.callback);
  for (const char* key : {"a", "throw", "b", "c"}) server->enqueue(key, "1");
  EXPECT_TRUE(WaitFor([&] { return server->Notes() == "a=1 b=1 c=1 "; }));
  EXPECT_FALSE(server->HasExpired()) << "a persistent server never does";
  EXPECT_FALSE(server->attachTransceiver(bed.transceiver));
  server->EndTasks();
  server->enqueue("d", "1");
  EXPECT_EQ(server->Notes(), "a=1 b=1 c=1 ");
  testing::internal::CaptureStdout();
  server->stop();
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "ZrTransceiverServer::stop()\n");
  const std::string name = server->JobName();
  server.reset();
  ASSERT_TRUE(WaitFor([&] { return !bed.Records(ZrServerCallback_t::kServerGone).empty(); }));
  const auto gone = bed.Records(ZrServerCallback_t::kServerGone).front();
  EXPECT_EQ(gone.info.Get("ID"), name);
  EXPECT_EQ(gone.info.Get("roll"), "server");
}

TEST(Listener, ReportsItsPeersAndWhereItListens) {
  ServerBed bed;
  const int port = bed.Open(zr::kProtocolHttp);
  ASSERT_GT(port, 0);
  const auto listening = bed.Records(ZrServerCallback_t::kListening).front();
  EXPECT_EQ(listening.info.Get("address"), "127.0.0.1");
  EXPECT_EQ(listening.info.Get("protocolstring"), "http");
  RawClient client(port);
  ASSERT_TRUE(
      WaitFor([&] { return bed.Records(ZrServerCallback_t::kConnectionAccepted).size() == 1; }));
  const auto accepted = bed.Records(ZrServerCallback_t::kConnectionAccepted).front();
  EXPECT_EQ(accepted.info.Get("ID"), listening.info.Get("ID"));
  EXPECT_EQ(accepted.info.Get("remoteaddress"), "127.0.0.1");
  EXPECT_EQ(accepted.info.Get("localport"), std::to_string(port));
  EXPECT_EQ(accepted.info.Get("localprotocolstring"), "http");
  EXPECT_FALSE(accepted.info.Get("remoteport").empty());
}

TEST(Listener, TriesATakenPortAgainAndStopsAtOnce) {
  ZrSocketIPvx taken(0);
  int port = 0;
  ASSERT_EQ(taken.listen("", port, 1), ZrSocketResult::kSuccess);
  ServerBed bed;
  testing::internal::CaptureStderr();
  bed.Start(zr::kProtocolHttp, {{"tcp_port", std::to_string(port)}});
  ASSERT_TRUE(WaitFor([&] { return !bed.Records(ZrServerCallback_t::kBindFailed).empty(); }));
  const auto failed = bed.Records(ZrServerCallback_t::kBindFailed);
  ASSERT_EQ(failed.size(), 1u) << "once, then a pause of 30 s";
  EXPECT_EQ(failed[0].info.Get("port"), std::to_string(port));
  const auto before = std::chrono::steady_clock::now();
  bed.transceiver.StopServers();
  EXPECT_LT(std::chrono::steady_clock::now() - before, 5s);
  EXPECT_NE(testing::internal::GetCapturedStderr().find("Could not bind"), std::string::npos);
}

TEST(Listener, AnUnusablePortIsSaidAndEndsTheLoop) {
  ServerBed bed;
  testing::internal::CaptureStderr();
  bed.Start(zr::kProtocolHttp, {{"tcp_port", "none"}});
  bed.transceiver.StopServers();  // waits for the loop, which has ended by itself or ends at once
  EXPECT_NE(testing::internal::GetCapturedStderr().find("invalid stoul argument"),
            std::string::npos);
  EXPECT_TRUE(bed.Records(ZrServerCallback_t::kBindFailed).empty());
}

TEST(Listener, ClosesPeersOfAServerWithAnotherType) {
  ServerBed bed;
  auto configuration = zr::MakeJob<ZrXServerHeader>(true, zr::kProtocolHttp);
  configuration->SetOption("tcp_port", "0");
  auto server = zr::MakeServer<ZrTransceiverServerL0Socket>(
      bed.scheduler, configuration, bed.transceiver, "client", configuration->JobName(),
      bed.transceiver.JobName(), bed.callback, "Gopher");
  EXPECT_TRUE(server->start());
  ASSERT_TRUE(WaitFor([&] { return !bed.Records(ZrServerCallback_t::kListening).empty(); }));
  RawClient client(std::stoi(bed.Records(ZrServerCallback_t::kListening)[0].info.Get("port")));
  EXPECT_EQ(client.ReadToEnd(), "");
  EXPECT_TRUE(bed.Records(ZrServerCallback_t::kConnectionAccepted).empty());
  server->EndTasks();
}

// The soft limit of descriptors, put back at the end.
class DescriptorLimit {
 public:
  DescriptorLimit() { getrlimit(RLIMIT_NOFILE, &before_); }
  ~DescriptorLimit() { Set(before_.rlim_cur); }
  void Set(rlim_t soft) {
    const rlimit now{soft, before_.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &now), 0);
  }
  rlim_t Before() const { return before_.rlim_cur; }

 private:
  rlimit before_{};
};

TEST(Listener, TakesAsManyPeersAsTheDescriptorsAllow) {
  DescriptorLimit limit;
  limit.Set(80);
  ServerBed bed;
  const int port = bed.Open(zr::kProtocolHttp);
  ASSERT_GT(port, 0);
  limit.Set(limit.Before());
  constexpr std::size_t kCap = 80 - 10 - 20;
  std::vector<RawClient> clients;
  for (std::size_t i = 0; i < kCap; ++i) clients.emplace_back(port);
  ASSERT_TRUE(bed.WaitForConnections(kCap));
  RawClient over(port);
  EXPECT_EQ(over.ReadToEnd(), "") << "one too many is closed at once";
  clients.front().Send("GET / HTTP/1.1\r\n\r\n");
  EXPECT_NE(clients.front().ReadUntil("/|"), "");
  while (clients.size() > 1) clients.pop_back();
  ASSERT_TRUE(bed.WaitForConnections(1));
  RawClient again(port);
  EXPECT_TRUE(bed.WaitForConnections(2));
}

TEST(Listener, WaitsWhenDescriptorsRunOut) {
  ServerBed bed;
  const int port = bed.Open(zr::kProtocolHttp);
  RawClient first(port);  // starts the I/O jobs
  ASSERT_TRUE(bed.WaitForConnections(1));
  DescriptorLimit limit;
  const int next = open("/dev/null", O_RDONLY | O_CLOEXEC);
  close(next);
  limit.Set(static_cast<rlim_t>(next) + 1);  // room for the client, none for the server's side
  RawClient client(port);
  ASSERT_TRUE(client.Connected());
  client.Send("GET / HTTP/1.1\r\n\r\n");
  EXPECT_EQ(client.ReadSome(1, 1s), "");
  limit.Set(limit.Before());
  EXPECT_NE(client.ReadUntil("/|"), "");
}

TEST(Connecting, OpensOneConnectionOrSaysNo) {
  ServerBed bed;
  const int port = bed.Open(zr::kProtocolHttp);
  const auto make = bed.transceiver.Factories().connecting.at(zr::kProtocolHttp);
  const auto target = zr::MakeJob<ZrXHeader>(ZrMessageType::kGet, zr::kProtocolHttp);
  target->host = "127.0.0.1";
  target->port = static_cast<std::uint64_t>(port);
  const auto connect = [&](const std::shared_ptr<ZrXHeader>& to) {
    return make(bed.scheduler, bed.transceiver, bed.handler->JobName(), "head", to, "owner",
                bed.callback);
  };
  auto worker = connect(target);
  EXPECT_TRUE(worker->start());
  EXPECT_TRUE(bed.transceiver.FindConnection(worker->Result()));
  EXPECT_FALSE(worker->Persistent());
  EXPECT_FALSE(connect(nullptr)->start());
  target->port = 1;
  testing::internal::CaptureStderr();
  EXPECT_FALSE(connect(target)->start());
  EXPECT_NE(testing::internal::GetCapturedStderr().find("Could not connect"), std::string::npos);
  worker.reset();
  EXPECT_TRUE(WaitFor([&] { return bed.Records(ZrServerCallback_t::kServerGone).size() == 3; }));
  EXPECT_EQ(bed.Records(ZrServerCallback_t::kServerGone)[0].info.Get("roll"), "client");
}

}  // namespace
