// Requests of a program, answered by a server of the same program.

#include "velkoro/client.h"

#include <gtest/gtest.h>

#include <mutex>

#include "net/tcp_socket.h"
#include "platform/socket.h"
#include "tests/support/temporary_folder.h"
#include "tests/support/wait.h"
#include "velkoro/server.h"

namespace {

using namespace std::chrono_literals;
using velkoro::Answer;
using velkoro::ClientRequest;
using velkoro::Outcome;
using velkoro::Request;

class Client : public testing::Test {
 protected:
  Client() : server_(Options()) {
    for (const char* method : {"GET", "POST", "PUT", "PATCH", "DELETE"}) {
      server_.Handle(method, "/echo", [](const Request& request, Answer& answer) {
        answer.Header("X-Seen", request.Header("x-one") + "|" + request.Header("content-type"));
        answer.Text(std::string(request.Method()) + " " + request.Query() + " " +
                    request.Field("field", "-") + " " + std::to_string(request.Body().size()) +
                    (request.Header("authorization").empty() ? "" : " known"));
      });
    }
    for (const int status : {301, 303, 307}) {
      server_.Handle(
          "POST", "/to/" + std::to_string(status),
          [status](const Request&, Answer& answer) { answer.Redirect("../echo?r", status); });
    }
    server_.Handle("GET", "/loop",
                   [](const Request&, Answer& answer) { answer.Redirect("/loop"); });
    server_.Handle("GET", "/secure", [this](const Request&, Answer& answer) {
      answer.Redirect(server_.Urls().at(1) + "/echo");
    });
    server_.Handle("GET", "/insecure", [this](const Request&, Answer& answer) {
      answer.Redirect(server_.Url() + "/echo");
    });
    server_.Handle("GET", "/port", [](const Request& request, Answer& answer) {
      answer.Text(std::to_string(request.Peer().port));
    });
    server_.Handle("GET", "/never",
                   [this](const Request&, Answer& answer) { kept_.push_back(answer.Defer()); });
    server_.Start();
  }
  static velkoro::ServerOptions Options() {
    return {.listen = {"http://127.0.0.1:0", "https://localhost:0"},
            .certificate = zrtest::TestCertificate().certificate,
            .privateKey = zrtest::TestCertificate().privateKey,
            .grace = 0ms};
  }
  std::string Url(const std::string& path, std::size_t which = 0) const {
    return server_.Urls().at(which) + path;
  }
  /// Status, body and error in a line.
  std::string Ask(const ClientRequest& request) {
    const Outcome outcome = client_.Ask(request).get();
    return std::to_string(outcome.status) + " " + outcome.body + outcome.error;
  }

  std::mutex lock_;
  std::vector<velkoro::Later> kept_;
  velkoro::Server server_;
  velkoro::Client client_;
};

TEST_F(Client, EachRequestHasItsOutcome) {
  const std::string trusted = zrtest::TestCertificate().certificate;
  struct Case {
    const char* name;
    ClientRequest request;
    std::string outcome;
  };
  for (const Case& c : std::vector<Case>{
           {"get", {.url = Url("/echo?q=1#x")}, "200 GET q=1 - 0"},
           {"head", {.url = Url("/echo"), .method = "HEAD"}, "200 "},
           {"body", {.url = Url("/echo"), .body = "12", .type = "text/x"}, "200 POST  - 2"},
           {"put", {.url = Url("/echo"), .method = "PUT", .body = "123"}, "200 PUT  - 3"},
           {"patch", {.url = Url("/echo"), .method = "PATCH"}, "200 PATCH  - 0"},
           {"delete", {.url = Url("/echo"), .method = "DELETE"}, "200 DELETE  - 0"},
           {"not followed", {.url = Url("/to/303"), .method = "POST"}, "303 "},
           {"303", {.url = Url("/to/303"), .body = "x", .redirects = 1}, "200 GET r - 0"},
           {"301", {.url = Url("/to/301"), .body = "x", .redirects = 1}, "200 GET r - 0"},
           {"307", {.url = Url("/to/307"), .body = "x", .redirects = 1}, "200 POST r - 1"},
           {"without end", {.url = Url("/loop"), .redirects = 5}, "303 "},
           {"trusted", {.url = Url("/echo", 1), .trusted = trusted}, "200 GET  - 0"},
           {"unchecked", {.url = Url("/echo", 1), .verify = false}, "200 GET  - 0"},
           {"to https",
            {.url = Url("/secure"),
            .headers = {{"Authorization", "x"}},
            .trusted = trusted,
            .redirects = 1},
            "200 GET  - 0"},
           {"from https", {.url = Url("/insecure", 1), .verify = false, .redirects = 1}, "303 "},
           {"late",
            {.url = Url("/never"), .timeLimit = 50ms},
            "0 timed out (no answer within the time limit)"},
       }) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(Ask(c.request), c.outcome);
  }
  EXPECT_TRUE(
      Ask({.url = Url("/echo"), .fields = {{"field", "a\"b"}}}).starts_with("200 POST  a\"b "));
  EXPECT_TRUE(Ask({.url = "http://127.0.0.1:1/"}).starts_with("0 connection refused"));
  EXPECT_TRUE(Ask({.url = Url("/echo", 1)}).starts_with("0 TLS failure"));
  const std::string port = Ask({.url = Url("/port"), .timeLimit = 30s});
  // The same connection, as soon as it is idle.
  EXPECT_TRUE(
      zrtest::WaitFor([&] { return Ask({.url = Url("/port"), .timeLimit = 20s}) == port; }));
  const Outcome outcome = client_
                              .Ask({.url = Url("/to/307"),
                                    .body = "x",
                                    .type = "a/b",
                                    .headers = {{"X-One", "1"}},
                                    .redirects = 1})
                              .get();
  EXPECT_TRUE(outcome);
  EXPECT_EQ(outcome.Header("content-type"), "text/plain; charset=utf-8");
  EXPECT_EQ(outcome.Header("x-seen"), "1|a/b");
  EXPECT_EQ(outcome.url, Url("/to/../echo?r"));
}

TEST_F(Client, WhatCannotBeAskedIsRefusedAtOnce) {
  for (const ClientRequest& request : std::vector<ClientRequest>{
           {.url = ""},
           {.url = "ftp://x/"},
           {.url = Url("/"), .method = "get"},
           {.url = Url("/"), .method = "GET", .body = "x"},
           {.url = Url("/"), .fields = {{"a", "b"}}, .body = "x"},
           {.url = Url("/"), .headers = {{"a", "b\r\nc: d"}}},
           {.url = Url("/"), .timeLimit = 0ms},
       }) {
    SCOPED_TRACE(request.url);
    EXPECT_THROW(client_.Ask(request), velkoro::ClientError);
  }
}

// Ten hosts that let nobody in: listeners whose queue is full, so that a connection is never made.
// One after the other they would take twenty seconds.
TEST_F(Client, SlowHostsHoldNobodyUp) {
  std::vector<std::unique_ptr<ZrSocketIPvx>> hosts;
  std::vector<ZrDescriptor> queued;
  std::vector<int> ports;
  for (int i = 0; i < 10; ++i) {
    int port = 0;
    hosts.push_back(std::make_unique<ZrSocketIPvx>());
    ASSERT_EQ(hosts.back()->listenAt("127.0.0.1", port, 0), ZrSocketResult::kSuccess);
    ports.push_back(port);
    const ZrResolution place = zr::ResolveHost("127.0.0.1", port);
    for (ZrDescriptor one; (one = zr::ConnectTo(place.addresses.at(0), 100ms)).IsOpen();)
      queued.push_back(std::move(one));
  }
  const auto begin = std::chrono::steady_clock::now();
  std::vector<std::future<Outcome>> coming;
  for (const int port : ports) {
    coming.push_back(
        client_.Ask({.url = "http://127.0.0.1:" + std::to_string(port) + "/", .timeLimit = 2s}));
  }
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 10s);
  EXPECT_EQ(Ask({.url = Url("/echo")}), "200 GET  - 0");
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 10s);
  for (auto& one : coming) EXPECT_TRUE(one.get().error.starts_with("timed out"));
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 18s);
}

TEST_F(Client, WhatIsLateOccupiesNoConnection) {
  for (int i = 0; i < 12; ++i) Ask({.url = Url("/never"), .timeLimit = 10ms});
  EXPECT_EQ(Ask({.url = Url("/echo"), .timeLimit = 10s}), "200 GET  - 0");
}

TEST_F(Client, AnEndLeavesNoRequestWithoutItsOutcome) {
  std::promise<std::string> again;
  std::future<Outcome> waiting;
  {
    velkoro::Client ending;
    waiting = ending.Ask({.url = Url("/never")});
    ending.Ask({.url = Url("/never")}, [&](const Outcome& outcome) {
      ending.Ask({.url = Url("/echo")}, [&, first = outcome.error](const Outcome& second) {
        again.set_value(first + ", " + second.error);
      });
      throw std::runtime_error("dropped");
    });
    EXPECT_EQ(ending.Ask({.url = Url("/echo")}).get().status, 200);
  }
  EXPECT_EQ(waiting.get().error, "stopped");
  EXPECT_EQ(again.get_future().get(), "stopped, stopped");
  EXPECT_EQ(velkoro::Ask({.url = Url("/echo")}).get().body, "GET  - 0");
}

}  // namespace
