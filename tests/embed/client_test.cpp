// Requests of a program, answered by a server of the same program.

#include "velkoro/client.h"

#include <gtest/gtest.h>

#include "platform/sync.h"
#include "tests/support/temporary_folder.h"
#include "velkoro/server.h"

namespace {

using namespace std::chrono_literals;
using velkoro::Answer;
using velkoro::ClientRequest;
using velkoro::Outcome;
using velkoro::Request;

class Client : public testing::Test {
 protected:
  Client()
      : server_({.listen = {"http://127.0.0.1:0", "https://localhost:0"},
                 .certificate = zrtest::TestCertificate().certificate,
                 .privateKey = zrtest::TestCertificate().privateKey,
                 .grace = 0ms}) {
    for (const char* method : {"GET", "POST", "PUT", "PATCH", "DELETE"}) {
      server_.Handle(method, "/echo", [](const Request& request, Answer& answer) {
        answer.Header("X-Seen", request.Header("x-one") + "|" + request.Header("content-type"));
        answer.Text(std::string(request.Method()) + " " + request.Query() + " " +
                    request.Field("field", "-") + " " + std::to_string(request.Body().size()) +
                    (request.Header("authorization").empty() ? "" : " known"));
      });
    }
    server_.Handle("POST", "/to/{status}", [](const Request& request, Answer& answer) {
      answer.Redirect("../echo?r", request.Path<int>("status"));
    });
    server_.Handle("GET", "/loop",
                   [](const Request&, Answer& answer) { answer.Redirect("/loop"); });
    server_.Handle("GET", "/server/{n}", [this](const Request& request, Answer& answer) {
      answer.Redirect(Url("/x/../echo", request.Path<std::size_t>("n")));
    });
    server_.Handle("GET", "/never", [this](const Request&, Answer& answer) {
      ZrLock hold(lock_);
      kept_.push_back(answer.Defer());
    });
    server_.Start();
  }
  std::string Url(const std::string& path, std::size_t which = 0) const {
    return server_.Urls().at(which) + path;
  }
  /// Status, body and error in a line.
  std::string Ask(const ClientRequest& request) {
    const Outcome outcome = client_.Ask(request).get();
    return std::to_string(outcome.status) + " " + outcome.body + outcome.error;
  }

  ZrMutex lock_;
  std::vector<velkoro::Later> kept_ ZR_GUARDED_BY(lock_);
  velkoro::Server server_;
  velkoro::Client client_;
};

TEST_F(Client, EachRequestHasItsOutcome) {
  const std::string trusted = zrtest::TestCertificate().certificate;
  const std::tuple<const char*, ClientRequest, const char*> cases[] = {
      {"get", {.url = Url("/echo?q=1#x")}, "200 GET q=1 - 0"},
      {"head", {.url = Url("/echo"), .method = "HEAD"}, "200 "},
      {"body", {.url = Url("/echo"), .body = "12", .type = "text/x"}, "200 POST  - 2"},
      {"patch", {.url = Url("/echo"), .method = "PATCH"}, "200 PATCH  - 0"},
      {"delete", {.url = Url("/echo"), .method = "DELETE"}, "200 DELETE  - 0"},
      {"not followed", {.url = Url("/to/303"), .method = "POST"}, "303 "},
      {"303", {.url = Url("/to/303"), .body = "x", .redirects = 1}, "200 GET r - 0"},
      {"307", {.url = Url("/to/307"), .body = "x", .redirects = 1}, "200 POST r - 1"},
      {"without end", {.url = Url("/loop"), .redirects = 5}, "303 "},
      {"trusted", {.url = Url("/echo", 1), .trusted = trusted}, "200 GET  - 0"},
      {"unchecked", {.url = Url("/echo", 1), .verify = false}, "200 GET  - 0"},
      {"to https",
       {.url = Url("/server/1"),
        .headers = {{"Authorization", "x"}},
        .trusted = trusted,
        .redirects = 1},
       "200 GET  - 0"},
      {"from https", {.url = Url("/server/0", 1), .verify = false, .redirects = 1}, "303 "},
  };
  for (const auto& [name, request, outcome] : cases) EXPECT_EQ(Ask(request), outcome) << name;
  const ClientRequest form{.url = Url("/echo"), .fields = {{"field", "a\"b"}}};
  EXPECT_TRUE(Ask(form).starts_with("200 POST  a\"b "));
  EXPECT_TRUE(Ask({.url = "http://127.0.0.1:1/"}).starts_with("0 connection refused"));
  EXPECT_TRUE(Ask({.url = Url("/echo", 1)}).starts_with("0 TLS failure"));
  ClientRequest typed{.url = Url("/to/307"), .body = "x", .type = "a/b", .redirects = 1};
  typed.headers = {{"X-One", "1"}};
  const Outcome outcome = client_.Ask(typed).get();
  EXPECT_TRUE(outcome);
  EXPECT_EQ(outcome.Header("content-type"), "text/plain; charset=utf-8");
  EXPECT_EQ(outcome.Header("x-seen"), "1|a/b");
  EXPECT_EQ(outcome.url, Url("/echo?r"));
  EXPECT_EQ(client_.Ask({.url = Url("/server/0"), .redirects = 1}).get().url, Url("/echo"));
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
    EXPECT_THROW(client_.Ask(request), velkoro::ClientError) << request.url;
  }
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
