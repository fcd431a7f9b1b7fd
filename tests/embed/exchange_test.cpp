// Requests as handlers see them, and what becomes of their answers.

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <semaphore>
#include <thread>

#include "tests/embed/asked_server.h"
#include "tests/support/captured.h"
#include "tests/support/raw_client.h"

namespace {

using namespace zrtest;
using namespace std::chrono_literals;
using velkoro::Answer;
using velkoro::Request;

TEST(Exchange, RequestsComeApartAndAnswersTogether) {
  const TemporaryFolder folder;
  const std::string large = folder.Write("large.bin", std::string(std::size_t{3} << 20, 'x'));
  folder.Write("www/form", "<form>");
  velkoro::Server server(AnyPort(folder.Path("www")));
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
  server.Handle("GET", "/facts/{name}", [](const Request& request, Answer& answer) {
    answer.Text(std::string(request.Method()) + " " + request.Target() + " " + request.Path() +
                " " + request.Path("name") + " " + request.Query() + " " + request.Header("X-One") +
                " " + request.Cookie("two", "-") + request.Cookie("three", "-") + " " +
                request.Peer().address + (request.Tls() ? " tls " : " plain ") +
                (request.Origin() == "http://" + request.Header("host") ? "origin" : "?"));
  });
  server.Handle("GET", "/made", [](const Request&, Answer& answer) {
    answer.Status(201).Header("X-Made", "1").AddHeader("X-Made", "2");
    answer.SetCookie({.name = "id", .value = "7", .lifetime = 60s, .secure = true});
  });
  server.Handle("GET", "/file", [&](const Request&, Answer& answer) { answer.File(large); });
  server.Handle("GET", "/nofile", [](const Request&, Answer& answer) { answer.File("/no/such"); });
  server.Handle("GET", "/nothing", [](const Request&, Answer&) {});
  server.Command("count", [](const Request& request, Answer& answer) {
    answer.Text(request.Command() + request.Field("x"));
  });
  server.Start();
  const std::tuple<const char*, std::vector<std::string>, const char*> cases[] = {
      {"/form", {}, "<form>[200]"},
      {"/form?a=1&a=2", {"-d", "b=x%26+y&n=3&on"}, "2x& y3off,1,2[200]"},
      {"/form",
       {"-F", "a=1", "-F", "up=@" + large + ";filename=n \"q\".x;type=a/b"},
       "1-7off,1 up=n \"q\".x:a/b:3145728[200]"},
      {"/facts/a%20b?q=%31",
       {"-H", "x-one: 1", "-b", "one=1; two=2"},
       "GET /facts/a%20b?q=%31 /facts/a b a b q=%31 1 2- 127.0.0.1 plain origin[200]"},
      {"/file", {"-r", "2-4"}, "xxx[206]"},
      {"/nofile", {"-o", "/dev/null"}, "[404]"},
      {"/nothing", {}, "[204]"},
      {"/?quarnid=count&quarncommand=c", {}, "c[200]"},
      {"/x", {"-d", "quarnid=count&x=1"}, "1[200]"},
      {"/?quarnid=other", {"-o", "/dev/null"}, "[404]"},
  };
  for (const auto& [path, options, answer] : cases)
    EXPECT_EQ(Ask(server, path, options), answer) << path;
  EXPECT_EQ(ReadFile(folder.Path("saved")), ReadFile(large));
  const std::string head = Ask(server, "/made", {"-I"});
  for (const char* field : {" 201 Created", "X-Made: 1", "X-Made: 2",
                            "Set-Cookie: id=7; Path=/; Max-Age=60; Secure; HttpOnly; SameSite=Lax"})
    EXPECT_NE(head.find(field), std::string::npos) << head;
}

TEST(Exchange, AHandlerThatFailsCostsItsOwnAnswerOnly) {
  velkoro::Server server(AnyPort());
  std::mutex lock;
  std::vector<std::string> told;  // before the answer is sent
  std::atomic<bool> connected{false};
  server.OnEvent([&](const velkoro::Event& event) {
    const std::lock_guard hold(lock);
    if (event.kind == velkoro::Event::Kind::kHandlerFailed) told.push_back(event.text);
    if (event.kind != velkoro::Event::Kind::kConnected) return;
    EXPECT_THROW(server.Stop(), std::logic_error);  // it would wait for this thread
    connected = true;
  });
  struct Silent : std::exception {
    const char* what() const noexcept override { return nullptr; }
  };
  server.Handle("GET", "/silent", [](const Request&, Answer&) { throw Silent(); });
  server.Handle("GET", "/number", [](const Request&, Answer&) { throw 1; });
  server.Handle("GET", "/throw", [](const Request&, Answer& answer) {
    answer.Text("half");
    throw std::runtime_error("broken\nX: 1");
  });
  server.Handle("GET", "/misuse", [](const Request& request, Answer& answer) {
    EXPECT_THROW(answer.Status(199), std::logic_error);
    EXPECT_THROW(answer.Header("a", "b\r\nc: d"), std::logic_error);
    EXPECT_THROW(answer.SetCookie({.name = "a", .value = "b; c"}), std::logic_error);
    EXPECT_THROW(answer.Redirect("/\r\nx: y"), std::logic_error);
    EXPECT_THROW(request.Path("name"), std::logic_error);
    answer.Text("unharmed");
  });
  testing::internal::CaptureStderr();
  server.Start();
  EXPECT_EQ(Ask(server, "/throw").find("half"), std::string::npos);
  for (const char* path : {"/silent", "/number"}) EXPECT_TRUE(Ask(server, path).ends_with("[500]"));
  {
    const std::lock_guard hold(lock);
    EXPECT_EQ(told, (std::vector<std::string>{"GET /throw: broken\\x0AX: 1",
                                              "GET /silent: an exception without text",
                                              "GET /number: an exception of unknown type"}));
  }
  EXPECT_NE(CapturedErrors().find("velkoro: GET /throw: broken\\x0AX: 1\n"), std::string::npos);
  EXPECT_TRUE(connected);
  EXPECT_EQ(Ask(server, "/misuse"), "unharmed[200]");
}

TEST(Exchange, AnswersComeLaterOrNotAtAll) {
  velkoro::ServerOptions options = AnyPort();
  options.handlerLimit = 300ms;
  options.handlerThreads = 2;
  velkoro::Server server(options);
  std::optional<velkoro::Later> kept;
  std::thread other;
  std::promise<void> released;
  const std::shared_future<void> release = released.get_future().share();
  std::promise<bool> late;
  const auto answerLater = [&](const Request&, Answer& answer) {
    const velkoro::Later later = answer.Defer();
    if (other.joinable()) other.join();
    other = std::thread([later] {
      later->Text("later");
      later.Send();
      later.Send();
    });
    return false;
  };
  server.Handle("GET", "/later", answerLater);
  server.Before("/refused", answerLater);
  server.Handle("GET", "/twice", [&](const Request&, Answer& answer) {
    velkoro::Later later = answer.Defer();
    EXPECT_THROW(answer.Defer(), std::logic_error);
    EXPECT_THROW(answer.Begin(), std::logic_error);
    velkoro::Stream body = later->Begin();
    EXPECT_THROW(later->Defer(), std::logic_error);
    body.Write("once");
  });
  server.Handle("GET", "/forgotten", [](const Request&, Answer& answer) { answer.Defer(); });
  server.Handle("GET", "/kept", [&](const Request&, Answer& answer) { kept = answer.Defer(); });
  server.Handle("GET", "/slow", [&](const Request& request, Answer& answer) {
    WaitUntilGone(request);
    answer.Text("too late");
    late.set_value(request.Gone());
  });
  server.Handle("GET", "/stuck", [release](const Request&, Answer&) { release.wait(); });
  server.Start();
  EXPECT_EQ(Ask(server, "/later") + Ask(server, "/refused"), "later[200]later[200]");
  EXPECT_EQ(Ask(server, "/twice"), "once[200]");
  testing::internal::CaptureStderr();
  EXPECT_TRUE(Ask(server, "/forgotten").ends_with("[500]"));
  EXPECT_EQ(CapturedErrors(), "velkoro: GET /forgotten: the deferred answer was never sent\n");
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

TEST(Exchange, StreamsAndHandlersEndWithTheirPeerOrTheServer) {
  velkoro::Server server(AnyPort());
  std::atomic<std::size_t> written{0};
  std::counting_semaphore<> over{0};
  std::counting_semaphore<> begun{0};
  std::promise<bool> ended;
  std::thread writer;
  server.Handle("GET", "/broken", [](const Request&, Answer& answer) {
    velkoro::Stream body = answer.Begin();
    body.Write("half");
    throw velkoro::RequestError(400, "broken off");
  });
  server.Handle("GET", "/endless", [&](const Request&, Answer& answer) {
    velkoro::Stream body = answer.Begin();
    const std::string piece(std::size_t{64} << 10, 'x');
    while (body.Write(piece)) written += piece.size();
    over.release();
  });
  server.Handle("GET", "/wait", [&](const Request& request, Answer&) {
    begun.release();
    WaitUntilGone(request);
    EXPECT_TRUE(request.Gone());
    over.release();
  });
  server.Handle("GET", "/later", [](const Request& request, Answer& answer) {
    const velkoro::Later later = answer.Defer();
    WaitUntilGone(request);
    later->Text("whole");
    EXPECT_TRUE(later.Send());
  });
  server.Handle("GET", "/pieces", [](const Request& request, Answer& answer) {
    velkoro::Stream body = answer.Begin();
    body.Write("first");
    WaitUntilGone(request);
    EXPECT_TRUE(!body.Gone() && body.Write("whole"));
  });
  server.Handle("GET", "/events", [&](const Request& request, Answer& answer) {
    writer = std::thread([&request, &ended, body = answer.Begin()]() mutable {
      body.Write("first");
      WaitUntilGone(request);
      ended.set_value(!body.Write("more"));
    });
  });
  server.Start();
  testing::internal::CaptureStderr();
  EXPECT_EQ(RunProgram({"curl", "-s", server.Url() + "/broken"}).status, 18);
  const auto ask = [&](const std::string& path) {
    RawClient client(server.Port());
    client.Send("GET " + path + " HTTP/1.1\r\nHost: x\r\n\r\n");
    return client;
  };
  // It pauses for one that does not read, and goes on when there is room.
  for (const std::size_t most : {1u, 32u << 20}) {
    RawClient reader = ask("/endless");
    for (std::size_t read = 0, count = 0; read < most; read += count)
      ASSERT_NE(count = reader.ReadSome().size(), 0u) << read;
    reader.Reset();
    over.acquire();
    EXPECT_LT(written.exchange(0), most + (64u << 20));
  }
  for (const bool resets : {true, false}) {
    {
      RawClient leaving = ask("/wait");
      begun.acquire();
      if (resets) leaving.Reset();
    }
    over.acquire();
  }
  // One that has only ended its side looks like one that closed, and reads its answer.
  for (const auto& [path, end] :
       {std::pair("/later", "whole"), {"/pieces", "whole\r\n0\r\n\r\n"}}) {
    RawClient half = ask(path);
    half.FinishSending();
    EXPECT_TRUE(half.ReadToEnd().ends_with(end)) << path;
  }
  RawClient events = ask("/events");
  EXPECT_NE(events.ReadUntil("first").find("first"), std::string::npos);
  server.Stop(0ms);
  EXPECT_TRUE(ended.get_future().get());
  EXPECT_EQ(CapturedErrors(), "velkoro: GET /broken: broken off\n");
  writer.join();
}

}  // namespace
