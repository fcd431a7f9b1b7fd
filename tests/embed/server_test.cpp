// A server in a program, asked with curl.

#include "velkoro/server.h"

#include <gtest/gtest.h>

#include <functional>
#include <thread>

#include "tests/embed/asked_server.h"
#include "tests/support/left_behind.h"
#include "tests/support/raw_client.h"
#include "tests/support/wait.h"

namespace {

using namespace zrtest;
using namespace std::chrono_literals;
using velkoro::Answer;
using velkoro::Request;

void ExpectRefused(const char* what, const std::function<void()>& act) {
  try {
    act();
    ADD_FAILURE() << "no error: " << what;
  } catch (const velkoro::ServerError& error) {
    EXPECT_NE(std::string(error.what()).find(what), std::string::npos) << error.what();
  }
}

TEST(Server, WhatIsWrongIsSaidWhenItIsSet) {
  const std::string& key = TestCertificate().privateKey;
  const std::pair<const char*, velkoro::ServerOptions> wrong[] = {
      {"no address to listen at", {.listen = {}}},
      {"must be https or http", {.listen = {"quarn://127.0.0.1:0"}}},
      {"must be https or http", {.listen = {"ftp://127.0.0.1:0"}}},
      {"the file '/no/such' cannot be read", {.certificate = "/no/such"}},
      {"https needs", {.listen = {"HTTPS://127.0.0.1:0"}}},
      {"'/etc/passwd' is a file", AnyPort("/etc/passwd")},
      {"no program 'no-such-php' on PATH", {.php = "no-such-php"}},
      {"'/etc/passwd' is no program", {.php = "/etc/passwd"}},
      {"cannot be used",
       {.listen = {"https://127.0.0.1:0"}, .certificate = key, .privateKey = key}},
  };
  for (const auto& one : wrong)
    ExpectRefused(one.first, [&] { velkoro::Server server(one.second); });
  velkoro::Server server(AnyPort());
  ExpectRefused("has no handler", [&] { server.Handle("GET", "/", nullptr); });
  for (const char* name : {"{x}", "/x"})
    ExpectRefused("cannot be a path", [&] { server.Page(name, ""); });
  // A guard that no request meets would be an open door.
  const auto guard = [](const Request&, Answer&) { return false; };
  for (const char* path : {"x", "/x/{id}", "/a%20b", "/x?y", "/x/../y"})
    ExpectRefused(path, [&] { server.Before(path, guard); });
  server.Page("x", "");
  ExpectRefused("same paths", [&] { server.Page("x", ""); });
  server.Start();
  ExpectRefused("before it starts", [&] { server.Page("y", ""); });
  ExpectRefused("starts once", [&] { server.Start(); });
  const std::string port = std::to_string(server.Port());
  velkoro::Server second({.listen = {"http://127.0.0.1:" + port}});
  ExpectRefused("is taken or not allowed", [&] { second.Start(); });
  velkoro::Server strange({.listen = {"http://203.0.113.1:0"}});
  ExpectRefused("203.0.113.1:0 cannot be listened at: Cannot assign", [&] { strange.Start(); });
  velkoro::Server beside({.listen = {"http://127.0.0.2:" + port}});  // another address is free
  EXPECT_EQ(beside.Start(), "http://127.0.0.2:" + port);
}

TEST(Server, AStopLetsEndWhatRunsAndLeavesNothingBehind) {
  const auto run = [] {
    velkoro::ServerOptions options{.listen = {"http://127.0.0.1:0", "https://127.0.0.1:0"},
                                   .certificate = TestCertificate().certificate,
                                   .privateKey = TestCertificate().privateKey};
    velkoro::Server server(options);
    std::promise<void> begun;
    server.Handle("GET", "/secure", [](const Request& request, Answer& answer) {
      answer.Text(request.Secure() && request.Tls()->version == "TLSv1.3" ? request.Origin() : "?");
    });
    server.Handle("GET", "/run", [&](const Request& request, Answer& answer) {
      begun.set_value();
      WaitUntilGone(request);
      answer.Text("too late");
    });
    server.Handle("GET", "/throw", [](const Request&, Answer&) { throw std::runtime_error("x"); });
    const std::string url = server.Start();
    EXPECT_TRUE(Ask(server, "/throw").ends_with("[500]"));  // and a line
    EXPECT_EQ(RunProgram({"curl", "-sk", server.Urls().at(1) + "/secure"}).out,
              server.Urls().at(1));
    BackgroundProgram running(
        {"curl", "-s", "-o", "/dev/null", "-w", "%{http_code}", url + "/run"});
    begun.get_future().wait();
    server.Stop(50ms);
    EXPECT_TRUE(running.WaitForEnd());
    EXPECT_EQ(running.Output(), "503");
    server.Stop();
  };
  const auto threads = [] { return Counts::NamesIn("/proc/self/task"); };
  std::thread([] {}).join();  // a sanitizer's own starts with the first one
  const std::uint64_t own = threads();
  run();  // what stays for the life of the process is there then
  EXPECT_TRUE(WaitFor([&] { return threads() <= own; })) << threads() << " of " << own;
  const Counts before = Counts::OfProcess();
  run();
  velkoro::Server unstarted;
  EXPECT_TRUE(WaitFor([&] { return Counts::OfProcess().MoreThan(before).empty(); }))
      << Counts::OfProcess().MoreThan(before);
}

TEST(Server, TheMinimalDialectHasRoutes) {
  velkoro::ServerOptions options = AnyPort();
  options.semantics = velkoro::Semantics::kMinimal;
  velkoro::Server server(options);
  server.Handle("GET", "/x",
                [](const Request& request, Answer& answer) { answer.Text(request.Field("q")); });
  server.Start();
  RawClient client(server.Port());
  client.Send("GET /x?q=1 HTTP/1.1\r\n\r\n");
  const std::string answer = client.ReadUntil("\r\n\r\n1");
  EXPECT_TRUE(answer.starts_with("HTTP/1.1 200 OK\r\nServer: ")) << answer;
  EXPECT_TRUE(answer.ends_with("\r\nContent-Length: 1\r\n\r\n1")) << answer;
}

}  // namespace
