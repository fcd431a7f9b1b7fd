// The whole system with several I/O threads: every message is answered as with one, whichever of
// them has it, and what peers leave behind goes with them.

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>

#include "host/application.h"
#include "http/protocol_kind.h"
#include "http/response_head.h"
#include "tests/support/left_behind.h"
#include "tests/support/raw_client.h"
#include "tests/support/run.h"
#include "tests/support/temporary_folder.h"
#include "tests/support/wait.h"

namespace {

using namespace zrtest;

/// Handles one message at a time, as it may rely on that.
class Alone : public ZrCommandHandler {
 public:
  std::string Name() const override { return "alone"; }
  void Request(ZrXHeader&, ZrXResponseHeader& answer, const std::string& command) override {
    EXPECT_FALSE(busy_.exchange(true));
    answer.SetBodyText(command);
    busy_ = false;
  }
  void Release() override {}

 private:
  std::atomic<bool> busy_{false};
};

class Team : public testing::TestWithParam<int> {
 protected:
  static constexpr int kClients = 3;
  static constexpr int kConnections = 8;  // of each client
  static constexpr int kRounds = 15;

  Team() {
    folder_.Write("small", std::string(1024, 's'));
    folder_.Write("large", std::string(300'000, 'l'));
  }
  void Start() {
    lines_ = 0;
    ZrOptionMap options;
    options.Set("_baseDirectoryHTTP", folder_.Path());
    options.Set("no_browser_popup", "1");
    options.Set("io_threads", std::to_string(GetParam()));
    options.Set("io_threads_fixed", "true");
    std::vector<ZrServerDefinition> servers;
    for (const auto kind : {zr::kProtocolHttp, zr::kProtocolHttps}) {
      ZrServerDefinition server{.address = "127.0.0.1",
                                .protocolKind = static_cast<std::int32_t>(kind)};
      server.options.Set("cacertificate", TestCertificate().certificate);
      server.options.Set("privatekey", TestCertificate().privateKey);
      servers.push_back(server);
    }
    application_ = std::make_unique<ZrQuarnApplication2>(nullptr, servers, options);
    application_->setLogSink([this](std::string_view) { ++lines_; });
    application_->registerHandler(&alone_);
    application_->startServers();
    EXPECT_TRUE(WaitFor([&] { return application_->getOptions().Has("tcp_port_https"); }));
    EXPECT_TRUE(WaitFor([&] { return application_->getOptions().Has("tcp_port_http"); }));
  }
  int Port(const std::string& protocol) {
    return std::stoi(application_->getOptions().Get("tcp_port_" + protocol));
  }

  /// A server from its start to its end, among many clients.
  void Serve();
  /// Asks on several connections at once, again and again.
  void Ask() {
    std::vector<RawClient> clients;
    for (int i = 0; i < kConnections; ++i) clients.emplace_back(Port("http"));
    for (int round = 0; round < kRounds; ++round) {
      const auto command = "c" + std::to_string(round);
      const auto kind = [round](int i) { return (i + round) % 3; };
      for (int i = 0; i < kConnections; ++i) {
        const std::string paths[] = {"/small", "/absent",
                                     "/?quarnid=alone&quarncommand=" + command};
        clients[static_cast<std::size_t>(i)].Send("GET " + paths[kind(i)] + " HTTP/1.1\r\n\r\n");
      }
      for (int i = 0; i < kConnections; ++i) {
        const std::string ends[] = {std::string(1024, 's'), "</html>", command};
        const std::string got = clients[static_cast<std::size_t>(i)].ReadUntil(ends[kind(i)]);
        EXPECT_TRUE(got.ends_with(ends[kind(i)])) << got;
        EXPECT_TRUE(got.starts_with(kind(i) == 1 ? "HTTP/1.1 404" : "HTTP/1.1 200")) << got;
      }
    }
  }

  const TemporaryFolder folder_;
  Alone alone_;
  std::atomic<int> lines_{0};
  std::unique_ptr<ZrQuarnApplication2> application_;
};

void Team::Serve() {
  Start();
  std::vector<std::thread> clients;
  for (int i = 0; i < kClients; ++i) clients.emplace_back([this] { Ask(); });
  clients.emplace_back([this] {
    for (int i = 0; i < 20; ++i) {
      RawClient client(Port("http"));
      client.Send("GET /large HTTP/1.1\r\n\r\nGET /small HTTP/1.1\r\n\r\n");
      client.ReadSome(1000);
      client.Reset();
    }
  });
  std::vector<std::string> words = {"curl",           "-ks", "-m", "60", "--parallel",
                                    "--parallel-max", "16"};
  for (int i = 0; i < 40; ++i)
    words.push_back("https://127.0.0.1:" + std::to_string(Port("https")) +
                    (i % 2 == 0 ? "/small" : "/large"));
  EXPECT_EQ(RunProgram(words, {}, std::chrono::seconds(90)).out.size(), 20u * (1024 + 300'000));
  for (std::thread& client : clients) client.join();
  EXPECT_TRUE(WaitFor([&] { return lines_ >= kClients * kConnections * kRounds + 40; })) << lines_;
  // While some are asking still, and one has not finished its handshake.
  auto silent = std::make_unique<RawClient>(Port("https"));
  std::thread asking([client = RawClient(Port("http"))]() mutable {
    while (client.Send("GET /small HTTP/1.1\r\n\r\n") && !client.ReadSome().empty()) {
    }
  });
  application_->stopServers();
  application_ = nullptr;
  asking.join();
  silent = nullptr;
}

TEST_P(Team, AnswersAllAlikeAndKeepsNothingOfThoseWhoGo) {
  Serve();  // what stays for the life of the process is there then
  const Counts before = Counts::OfProcess();
  Serve();
  std::string more;
  EXPECT_TRUE(WaitFor([&] { return (more = Counts::OfProcess().MoreThan(before)).empty(); }))
      << more << Counts::OpenFiles();
}

INSTANTIATE_TEST_SUITE_P(Threads, Team, testing::Values(1, 2, 4));

}  // namespace
