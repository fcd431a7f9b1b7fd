// A server in a program, asked with curl.

#include "velkoro/server.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <mutex>
#include <thread>

#include "tests/support/captured.h"
#include "tests/support/left_behind.h"
#include "tests/support/raw_client.h"
#include "tests/support/run.h"
#include "tests/support/wait.h"
#include "velkoro/documents.h"

namespace {

using namespace zrtest;
using namespace std::chrono_literals;
using velkoro::Answer;
using velkoro::Request;

velkoro::ServerOptions AnyPort(std::string directory = {}) {
  return {.listen = {"http://127.0.0.1:0"}, .directory = std::move(directory)};
}

/// curl's output for a path of the server: the body and a last line with the status.
std::string Ask(const velkoro::Server& server, const std::string& path,
                std::vector<std::string> options = {}) {
  std::vector<std::string> words = {"curl", "-sk", "--max-time", "20", "-w", "[%{http_code}]"};
  words.insert(words.end(), options.begin(), options.end());
  words.push_back(server.Url() + path);
  return RunProgram(words).out;
}

void ExpectRefused(const char* what, const std::function<void()>& act) {
  try {
    act();
    ADD_FAILURE() << "no error: " << what;
  } catch (const velkoro::ServerError& error) {
    EXPECT_NE(std::string(error.what()).find(what), std::string::npos) << error.what();
  }
}

TEST(Server, WhatIsWrongIsSaidWhenItIsSet) {
  const auto with = [](velkoro::ServerOptions options) {
    return [options] { velkoro::Server server(options); };
  };
  ExpectRefused("'nowhere': give it as", with({.listen = {"nowhere"}}));
  ExpectRefused("no address to listen at", with({.listen = {}}));
  ExpectRefused("must be https or http", with({.listen = {"quarn://127.0.0.1:0"}}));
  ExpectRefused("'/no/such' is not there", with(AnyPort("/no/such")));
  ExpectRefused("'/etc/passwd' is a file", with(AnyPort("/etc/passwd")));
  ExpectRefused("no program 'no-such-php' on PATH", with({.php = "no-such-php"}));
  ExpectRefused("'/etc/passwd' is no program", with({.php = "/etc/passwd"}));
  ExpectRefused("needs a certificate", with({.listen = {"https://127.0.0.1:0"}}));
  ExpectRefused("cannot be used", with({.listen = {"https://127.0.0.1:0"},
                                        .certificate = TestCertificate().privateKey,
                                        .privateKey = TestCertificate().certificate}));
  velkoro::Server server(AnyPort());
  ExpectRefused("has no handler", [&] { server.Handle("GET", "/", nullptr); });
  ExpectRefused("cannot be a path", [&] { server.Page("{x}", ""); });
  ExpectRefused("does not begin with '/'", [&] {
    server.Before("x", velkoro::BasicAuthentication("r", {{"a", "b"}}));
  });
  // A guard that no request meets would be an open door.
  for (const char* path : {"/x/{id}", "/a%20b", "/x?y", "/x/../y"})
    ExpectRefused(path,
                  [&] { server.Before(path, [](const Request&, Answer&) { return false; }); });
  ExpectRefused("cannot be a path", [&] { server.Page("/x", ""); });
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

TEST(Server, RequestsComeApartAndAnswersTogether) {
  const TemporaryFolder folder;
  folder.Write("www/index.html", "the file");
  folder.Write("www/form", "<form>");
  const std::string file = folder.Write("part.txt", "0123456789");
  velkoro::Server server(AnyPort(folder.Path("www")));
  server.Handle("GET", "/hello/{name}", [](const Request& request, Answer& answer) {
    answer.Text("Hello " + request.Path("name"));
  });
  server.Handle("POST", "/form", [&](const Request& request, Answer& answer) {
    std::string text = request.Field("a", "-") + request.Field("b", "-") +
                       std::to_string(request.Field("n", 7)) + (request.Has("on") ? "on" : "off");
    for (const std::string& value : request.Fields("a")) text += "," + value;
    for (const velkoro::Upload& upload : request.Uploads()) {
      text += " " + upload.field + "=" + upload.name + ":" + upload.type + ":" +
              std::to_string(upload.bytes.size());
      upload.SaveTo(folder.Path("saved"));
    }
    answer.Text(text);
  });
  server.Handle("PUT", "/body", [](const Request& request, Answer& answer) {
    std::string line;
    std::getline(*request.BodyStream(), line);
    answer.Json("[\"" + line + "\"," + std::to_string(request.Body().size()) + "]");
  });
  server.Handle("GET", "/typed/{n}", [](const Request& request, Answer& answer) {
    answer.Text(std::to_string(request.Path<int>("n") + request.Field<int>("m")));
  });
  server.Handle("GET", "/facts", [](const Request& request, Answer& answer) {
    answer.Text(std::string(request.Method()) + " " + request.Target() + " " + request.Path() +
                " " + request.Query() + " " + request.Header("X-One") + " " +
                request.Cookie("two", "-") + request.Cookie("three", "-") + " " +
                request.Peer().address + (request.Tls() ? " tls " : " plain ") +
                (request.Origin() == "http://" + request.Header("host") ? "origin" : "?"));
  });
  server.Handle("GET", "/made", [](const Request&, Answer& answer) {
    answer.Status(201).Header("X-Made", "1").AddHeader("X-Made", "2");
    answer.SetCookie({.name = "id", .value = "7", .lifetime = 60s, .secure = true});
    velkoro::Document page("html", velkoro::DocumentKind::kHtml);
    page.Root().Add("body").AddText("<&");
    answer.Html(page);
  });
  server.Handle("GET", "/file", [&](const Request&, Answer& answer) { answer.File(file); });
  server.Handle("GET", "/nofile", [](const Request&, Answer& answer) { answer.File("/no/such"); });
  server.Handle("GET", "/away",
                [](const Request&, Answer& answer) { answer.Redirect("/hello/there"); });
  server.Handle("GET", "/nothing", [](const Request&, Answer&) {});
  server.Handle("GET", "/refuse",
                [](const Request&, Answer&) { throw velkoro::RequestError(409, "not now"); });
  server.Handle("GET", "/rest/{all...}",
                [](const Request& request, Answer& answer) { answer.Text(request.Path("all")); });
  server.Handle("DELETE", "/rest/{all...}", [](const Request&, Answer&) {});
  server.Command("count", [](const Request& request, Answer& answer) {
    answer.Text(request.Command() + request.Field("x"));
  });
  server.Page("about", "<p>About</p>");
  server.Start();

  const std::string large = folder.Write("large.bin", std::string(std::size_t{3} << 20, 'x'));
  struct Case {
    const char* path;
    std::vector<std::string> options;
    std::string answer;
  };
  for (const Case& c : std::vector<Case>{
           {"/hello/Ada%20L", {}, "Hello Ada L[200]"},
           {"/", {}, "the file[200]"},
           {"/none", {"-o", "/dev/null"}, "[404]"},
           {"/about", {}, "<p>About</p>[200]"},
           {"/form", {}, "<form>[200]"},
           {"/form?a=1&a=2", {"-d", "b=x%26+y&n=3&on"}, "2x& y3off,1,2[200]"},
           {"/form",
            {"-F", "a=1", "-F", "up=@" + large + ";filename=n \"q\".x;type=a/b"},
            "1-7off,1 up=n \"q\".x:a/b:3145728[200]"},
           {"/form", {"-d", "n=many"}, "the field 'n' has an unusable value\n[400]"},
           {"/form", {"-X", "PUT", "-o", "/dev/null"}, "[405]"},
           {"/body", {"-X", "PUT", "-d", "line"}, "[\"line\",4][200]"},
           {"/body", {"-T", large, "-o", "/dev/null"}, "[200]"},
           {"/typed/1?m=2", {}, "3[200]"},
           {"/typed/1", {}, "the field 'm' is missing\n[400]"},
           {"/typed/x?m=2", {}, "there is no such page\n[404]"},
           {"/facts?q=%31",
            {"-H", "x-one: 1", "-b", "one=1; two=2"},
            "GET /facts?q=%31 /facts q=%31 1 2- 127.0.0.1 plain origin[200]"},
           {"/made", {}, "<!DOCTYPE html>\n<html><body>&lt;&amp;</body></html>\n[201]"},
           {"/file", {"-r", "2-4"}, "234[206]"},
           {"/nofile", {"-o", "/dev/null"}, "[404]"},
           {"/away", {"-L"}, "Hello there[200]"},
           {"/nothing", {}, "[204]"},
           {"/refuse", {}, "not now\n[409]"},
           {"/rest/a/b", {}, "a/b[200]"},
           {"/rest/a", {"-I", "-o", "/dev/null"}, "[200]"},
           {"/?quarnid=count&quarncommand=c", {}, "c[200]"},
           {"/x", {"-d", "quarnid=count&x=1"}, "1[200]"},
           {"/?quarnid=other", {}, "the file[200]"},
       }) {
    SCOPED_TRACE(c.path);
    EXPECT_EQ(Ask(server, c.path, c.options), c.answer);
  }
  EXPECT_EQ(ReadFile(folder.Path("saved")), ReadFile(large));
  const std::string head = Ask(server, "/made", {"-I"});
  for (const char* field : {"X-Made: 1", "X-Made: 2", "Content-Type: text/html; charset=utf-8",
                            "Set-Cookie: id=7; Path=/; Max-Age=60; Secure; HttpOnly; SameSite=Lax"})
    EXPECT_NE(head.find(field), std::string::npos) << head;
  const auto allowed = [&](const char* path) {
    const std::string text = Ask(server, path, {"-X", "OPTIONS", "-D", "-"});
    const std::size_t begin = text.find("Allow: ");
    return begin == std::string::npos ? text : text.substr(begin, text.find('\r', begin) - begin);
  };
  EXPECT_EQ(allowed("/rest/x"), "Allow: GET, HEAD, DELETE, OPTIONS");
  EXPECT_EQ(allowed("/form"), "Allow: GET, POST, HEAD, OPTIONS");
}

TEST(Server, GuardsStandBeforeRoutesAndFiles) {
  const TemporaryFolder folder;
  folder.Write("admin/file", "secret");
  folder.Write("administration", "open");
  velkoro::Server server(AnyPort(folder.Path()));
  std::atomic<int> seen{0};
  server.Handle("GET", "/admin/route",
                [](const Request& request, Answer& answer) { answer.Text(request.User()); });
  server.Handle("GET", "/api",
                [](const Request& request, Answer& answer) { answer.Text(request.User()); });
  server.Handle("GET", "/stop", [](const Request&, Answer&) { FAIL() << "asked"; });
  server.Before([](const Request& request, Answer& answer) {
    if (request.Path() == "/stop") answer.Text("stopped");
    return request.Path() != "/stop";
  });
  server.Before("/admin/",
                velkoro::BasicAuthentication("the \"inside\"", {{"ada", "s:1"}, {"", ""}}));
  server.Before("/api", velkoro::BearerAuthentication("api", {{"t0ken", "eve"}}));
  server.After([&](const Request&, const Answer& answer) { seen += answer.Status(); });
  server.Start();
  struct Case {
    const char* path;
    std::vector<std::string> options;
    const char* answer;
  };
  for (const Case& c : std::vector<Case>{
           {"/admin/file", {}, "[401]"},
           {"/admin", {}, "[401]"},
           {"/admin/none", {"-X", "DELETE"}, "[401]"},
           {"/administration", {}, "open[200]"},
           {"/admin/file", {"-u", "ada:s:1"}, "secret[200]"},
           {"/admin/file", {"-u", "ada:s:"}, "[401]"},
           {"/admin/file", {"-H", "Authorization: Basic %%%"}, "[401]"},
           {"/admin/file", {"-H", "Authorization: Basic YWRh"}, "[401]"},
           {"/admin/route", {"-u", "ada:s:1"}, "ada[200]"},
           {"/admin/route", {"-u", "ada:s:1", "-X", "POST"}, "[405]"},
           {"/api", {"-H", "Authorization: bearer t0ken"}, "eve[200]"},
           {"/api", {"-H", "Authorization: bearer t0ke"}, "[401]"},
           {"/stop", {}, "stopped[200]"},
       }) {
    SCOPED_TRACE(c.path);
    const std::string answer = Ask(server, c.path, c.options);
    EXPECT_TRUE(answer.ends_with(c.answer)) << answer;
    EXPECT_EQ(answer.find("secret") != std::string::npos, c.answer[0] == 's' && c.answer[1] == 'e');
  }
  EXPECT_NE(
      Ask(server, "/admin", {"-I"}).find("Www-Authenticate: Basic realm=\"the \\\"inside\\\"\""),
      std::string::npos);
  EXPECT_GT(seen, 401);
}

TEST(Server, AHandlerThatFailsCostsItsOwnAnswerOnly) {
  velkoro::Server server(AnyPort());
  std::mutex lock;
  std::vector<std::string> told;  // before the answer is sent
  std::atomic<bool> refused{false};
  server.OnEvent([&](const velkoro::Event& event) {
    const std::lock_guard hold(lock);
    if (event.kind == velkoro::Event::Kind::kHandlerFailed) told.push_back(event.text);
    if (event.kind != velkoro::Event::Kind::kConnected) return;
    try {
      server.Stop();  // it waits for this thread
    } catch (const std::logic_error&) {
      refused = true;
    }
  });
  struct Silent : std::exception {
    const char* what() const noexcept override { return nullptr; }
  };
  server.Handle("GET", "/silent", [](const Request&, Answer&) { throw Silent(); });
  server.Handle("GET", "/number", [](const Request&, Answer&) { throw 1; });
  server.Handle("GET", "/throw", [](const Request&, Answer& answer) {
    answer.Text("half");
    throw std::runtime_error("broken");
  });
  for (const char* what : {"status", "field", "cookie", "redirect", "name"}) {
    server.Handle("GET", std::string("/") + what, [what](const Request& request, Answer& answer) {
      const std::string_view wrong(what);
      try {
        if (wrong == "status") answer.Status(199);
        if (wrong == "field") answer.Header("a", "b\r\nc: d");
        if (wrong == "cookie") answer.SetCookie({.name = "a", .value = "b; c"});
        if (wrong == "redirect") answer.Redirect("/\r\nx: y");
        if (wrong == "name") request.Path("name");
        answer.Text("taken");
      } catch (const std::logic_error&) {
        answer.Text("refused");
      }
    });
  }
  testing::internal::CaptureStderr();
  server.Start();
  EXPECT_EQ(Ask(server, "/throw").find("half"), std::string::npos);
  for (const char* path : {"/silent", "/number"}) EXPECT_TRUE(Ask(server, path).ends_with("[500]"));
  {
    const std::lock_guard hold(lock);
    EXPECT_EQ(told, (std::vector<std::string>{"GET /throw: broken",
                                              "GET /silent: an exception without text",
                                              "GET /number: an exception of unknown type"}));
  }
  EXPECT_NE(CapturedErrors().find("velkoro: GET /throw: broken\n"), std::string::npos);
  EXPECT_TRUE(refused);
  for (const char* path : {"/status", "/field", "/cookie", "/redirect", "/name"})
    EXPECT_EQ(Ask(server, path), "refused[200]") << path;
}

TEST(Server, AnswersComeLaterOrNotAtAll) {
  velkoro::ServerOptions options = AnyPort();
  options.handlerLimit = 300ms;
  options.handlerThreads = 2;
  velkoro::Server server(options);
  std::optional<velkoro::Later> kept;
  std::thread other;
  std::promise<void> released;
  const std::shared_future<void> release = released.get_future().share();
  std::promise<bool> late;
  server.Handle("GET", "/later", [&](const Request&, Answer& answer) {
    const velkoro::Later later = answer.Defer();
    other = std::thread([later] {
      later->Text("later");
      later.Send();
      later.Send();
    });
  });
  server.Handle("GET", "/forgotten", [](const Request&, Answer& answer) { answer.Defer(); });
  server.Handle("GET", "/kept", [&](const Request&, Answer& answer) { kept = answer.Defer(); });
  server.Handle("GET", "/slow", [&](const Request& request, Answer& answer) {
    std::promise<void> gone;
    request.OnGone([&gone] { gone.set_value(); });
    gone.get_future().wait();
    answer.Text("too late");
    late.set_value(request.Gone());
  });
  server.Handle("GET", "/stuck", [release](const Request&, Answer&) { release.wait(); });
  server.Start();
  EXPECT_EQ(Ask(server, "/later"), "later[200]");
  EXPECT_TRUE(Ask(server, "/forgotten").ends_with("[500]"));
  EXPECT_TRUE(Ask(server, "/slow").ends_with("[503]"));
  EXPECT_TRUE(late.get_future().get());
  EXPECT_TRUE(Ask(server, "/kept").ends_with("[503]"));
  // Both threads are taken; what waits behind them is given up as well, and another one answers.
  BackgroundProgram one({"curl", "-s", server.Url() + "/stuck"});
  BackgroundProgram two({"curl", "-s", server.Url() + "/stuck"});
  EXPECT_TRUE(Ask(server, "/stuck").ends_with("[503]"));
  released.set_value();
  EXPECT_EQ(Ask(server, "/nowhere", {"-o", "/dev/null"}), "[404]");
  other.join();
  server.Stop();
  EXPECT_FALSE(kept->Send());
}

TEST(Server, BodiesAreWrittenWhileTheyAreMade) {
  velkoro::Server server(AnyPort());
  std::promise<std::size_t> written;
  std::promise<void> ended;
  std::promise<void> told;
  std::thread writer;
  server.OnEvent([&](const velkoro::Event& event) {
    if (event.kind == velkoro::Event::Kind::kHandlerFailed) told.set_value();
  });
  server.Handle("GET", "/pieces", [](const Request&, Answer& answer) {
    velkoro::Stream body = answer.Header("X-Made", "1").Begin();
    for (const char* piece : {"one", "", "two", "three"})
      if (!body.Write(piece)) return;
  });
  server.Handle("GET", "/known", [](const Request&, Answer& answer) {
    velkoro::Stream body = answer.Header("Content-Length", "4").Begin();
    while (body.Write("abc")) continue;
  });
  server.Handle("GET", "/broken", [](const Request&, Answer& answer) {
    velkoro::Stream body = answer.Begin();
    body.Write("half");
    throw velkoro::RequestError(400, "broken off");
  });
  server.Handle("GET", "/endless", [&](const Request&, Answer& answer) {
    velkoro::Stream body = answer.Begin();
    const std::string piece(std::size_t{64} << 10, 'x');
    std::size_t bytes = 0;
    while (body.Write(piece)) bytes += piece.size();
    written.set_value(bytes);
  });
  server.Handle("GET", "/events", [&](const Request& request, Answer& answer) {
    writer = std::thread([&request, &ended, body = answer.Begin()]() mutable {
      std::promise<void> gone;
      request.OnGone([&gone] { gone.set_value(); });
      body.Write("first");
      gone.get_future().wait();
      EXPECT_FALSE(body.Write("more"));
      ended.set_value();
    });
  });
  testing::internal::CaptureStderr();
  server.Start();
  EXPECT_EQ(Ask(server, "/pieces"), "onetwothree[200]");
  EXPECT_EQ(Ask(server, "/pieces", {"--http1.0"}), "onetwothree[200]");
  EXPECT_NE(Ask(server, "/pieces", {"-I"}).find("X-Made: 1"), std::string::npos);
  EXPECT_EQ(Ask(server, "/known"), "abca[200]");
  EXPECT_EQ(RunProgram({"curl", "-s", server.Url() + "/broken"}).status, 18);
  told.get_future().get();
  EXPECT_EQ(CapturedErrors(), "velkoro: GET /broken: broken off\n");
  {
    RawClient slow(server.Port());
    slow.Send("GET /endless HTTP/1.1\r\nHost: x\r\n\r\n");
    EXPECT_FALSE(slow.ReadSome().empty());
    slow.Reset();
    EXPECT_LT(written.get_future().get(), std::size_t{64} << 20);
  }
  RawClient events(server.Port());
  events.Send("GET /events HTTP/1.1\r\nHost: x\r\n\r\n");
  EXPECT_NE(events.ReadUntil("first").find("first"), std::string::npos);
  server.Stop(0ms);
  ended.get_future().get();
  writer.join();
}

TEST(Server, AHandlerHearsThatItsPeerHasGone) {
  velkoro::Server server(AnyPort());
  std::promise<void> begun;
  std::promise<bool> heard;
  server.Handle("GET", "/wait", [&](const Request& request, Answer&) {
    std::promise<void> gone;
    request.OnGone([&gone] { gone.set_value(); });
    begun.set_value();
    gone.get_future().wait();
    heard.set_value(request.Gone());
  });
  server.Start();
  RawClient client(server.Port());
  client.Send("GET /wait HTTP/1.1\r\nHost: x\r\n\r\n");
  begun.get_future().wait();
  client.Reset();
  EXPECT_TRUE(heard.get_future().get());
}

TEST(Server, AStopLetsEndWhatRunsAndLeavesNothingBehind) {
  const auto run = [] {
    velkoro::ServerOptions options{.listen = {"http://127.0.0.1:0", "https://127.0.0.1:0"},
                                   .certificate = TestCertificate().certificate,
                                   .privateKey = TestCertificate().privateKey};
    velkoro::Server server(options);
    std::promise<void> begun;
    std::promise<void> never;
    server.Handle("GET", "/secure", [](const Request& request, Answer& answer) {
      answer.Text(request.Secure() && request.Tls()->version == "TLSv1.3" ? request.Origin() : "?");
    });
    server.Handle("GET", "/run", [&](const Request& request, Answer& answer) {
      begun.set_value();
      std::promise<void> gone;
      request.OnGone([&gone] { gone.set_value(); });
      gone.get_future().wait();
      answer.Text("too late");
    });
    server.Handle("GET", "/stop", [&](const Request&, Answer& answer) {
      try {
        server.Stop();
      } catch (const std::logic_error&) {
        answer.Text("refused");
      }
    });
    const std::string url = server.Start();
    EXPECT_EQ(url, server.Urls().front());
    EXPECT_EQ(RunProgram({"curl", "-sk", server.Urls().at(1) + "/secure"}).out,
              server.Urls().at(1));
    EXPECT_EQ(Ask(server, "/stop"), "refused[200]");
    BackgroundProgram running(
        {"curl", "-s", "-o", "/dev/null", "-w", "%{http_code}", url + "/run"});
    begun.get_future().wait();
    server.Stop(50ms);
    EXPECT_TRUE(running.WaitForEnd());
    EXPECT_EQ(running.Output(), "503");
    EXPECT_EQ(server.Port(), 0);
    EXPECT_EQ(server.Url(), "");
    server.Stop();
  };
  run();  // what stays for the life of the process is there then
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
