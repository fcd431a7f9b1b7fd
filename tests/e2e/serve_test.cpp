// The road of a request through the program as its users see it.

#include <gtest/gtest.h>
#include <signal.h>

#include <regex>

#include "tests/e2e/served.h"
#include "tests/support/raw_client.h"
#include "tests/support/wait.h"

namespace {

using zrtest::CurlWords;
using zrtest::Pattern;
using zrtest::RawClient;
using zrtest::ReadFile;
using zrtest::RunProgram;
using zrtest::Served;
using zrtest::TemporaryFolder;
using zrtest::WaitFor;

const std::string kServer = "Server: velkoro/1.28.1(96)\r\n";

std::string Answer(const std::string& body) {
  return "HTTP/1.1 200 OK\r\n" + kServer + "Content-Length: " + std::to_string(body.size()) +
         "\r\n\r\n" + body;
}

TEST(Serve, AnswersAndLogsOnEveryProtocol) {
  const TemporaryFolder folder;
  folder.Write("index.html", "welcome");
  Served served(folder, {"https", "http", "quarn", "socket"});
  for (const char* protocol : {"http", "https"}) {
    const auto got = served.Curl(protocol, "/", {"-i", "-A", "test agent", "-e", "from"});
    EXPECT_EQ(got.out, Answer("welcome")) << got.err;
  }
  RawClient quarn(served.Port("quarn"));
  quarn.Send("GET / QUARN/1.1\r\n\r\n");
  EXPECT_EQ(quarn.ReadUntil("\r\n\r\n"),
            "HTTP/1.1 404 Not Found\r\n" + kServer + "Content-Length: 0\r\n\r\n");
  RawClient socket(served.Port("socket"));
  EXPECT_TRUE(socket.Send("any bytes at all"));  // taken, and answered by nobody
  socket.FinishSending();
  EXPECT_EQ(socket.ReadToEnd(), "");

  ASSERT_TRUE(served.WaitForLog(3));
  const std::string rest = std::to_string(Answer("welcome").size()) + R"( "from" "testagent")";
  const char* const schemes[] = {"http", "https", "quarn"};
  for (std::size_t i = 0; i < 3; ++i) {
    const std::regex line(
        R"(127\.0\.0\.1 - )" + std::string(schemes[i]) +
        R"( - \[[A-Z][a-z]{2} [A-Z][a-z]{2} [ 0-9]\d \d\d:\d\d:\d\d \d{4}\] )" +
        (i < 2 ? R"("GET /" --> 200 )" + rest : R"("GET /" --> 404 \d+ "-" "-")"));
    EXPECT_TRUE(std::regex_match(served.Log()[i], line)) << served.Log()[i];
  }
  EXPECT_EQ(served.Stop(), 0);
  EXPECT_EQ(served.Program().Errors(), "");
}

TEST(Serve, RoutesPathsToFilesOrTheErrorPage) {
  const TemporaryFolder outside;
  outside.Write("secret", "secret");
  const TemporaryFolder folder;
  folder.Write("page.txt", "text");
  folder.Write("sub/deep.txt", "deep");
  folder.Write("a%20b", "escaped");
  folder.Write("x.php.txt", "plain");
  folder.Write(".hidden", "hidden");
  std::filesystem::create_symlink(outside.Path("secret"), folder.Path("out"));
  std::filesystem::create_directory_symlink(outside.Path(), folder.Path("away"));
  std::filesystem::create_symlink("page.txt", folder.Path("in"));
  Served served(folder, {"http"});
  struct Case {
    const char* path;
    const char* body;  // null: not found
  };
  const Case cases[] = {{"/page.txt", "text"},
                        {"/sub/deep.txt", "deep"},
                        {"/a%20b", "escaped"},
                        {"/x.php.txt", "plain"},
                        {"/in", "text"},
                        {"/sub", ""},
                        {"/page.txt?a=1", "text"},
                        {"/", nullptr},
                        {"/.hidden", nullptr},
                        {"/none", nullptr},
                        {"/../secret", nullptr},
                        {"/sub/../../secret", nullptr},
                        {"/out", nullptr},
                        {"/away/secret", nullptr},
                        {"//etc/passwd", nullptr},
                        {"/page.txt/", nullptr},
                        {"/sub\\deep.txt", nullptr}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.path);
    const auto got = served.Curl("http", c.path, {"-w", "%{http_code}"});
    if (c.body != nullptr) {
      EXPECT_EQ(got.out, std::string(c.body) + "200");
    } else {
      EXPECT_TRUE(got.out.ends_with("404"));
      for (const char* text :
           {"<title>\nError 404 - not found\n</title>",
            "<h1>Error 404 - not found</h1>The requested page was not found", "Startseite"}) {
        EXPECT_NE(got.out.find(text), std::string::npos) << text << got.out;
      }
    }
  }
  RawClient nul(served.Port("http"));
  nul.Send(std::string_view("GET /page.txt\0x HTTP/1.1\r\n\r\n", 29));
  EXPECT_TRUE(nul.ReadUntil("\r\n\r\n").starts_with("HTTP/1.1 404 "));
}

TEST(Serve, KeepsTheConnectionAndTheOrderOfRequests) {
  const TemporaryFolder folder;
  folder.Write("a", "first");
  folder.Write("b", Pattern(300'000));
  Served served(folder, {"http", "https"});
  const std::string both = Answer("first") + Answer(Pattern(300'000));
  const std::string requests = "GET /a HTTP/1.1\r\n\r\nGET /b HTTP/1.1\r\n\r\n";
  {
    SCOPED_TRACE("both at once, then half closed");
    RawClient client(served.Port("http"));
    client.Send(requests);
    client.FinishSending();
    bool ended = false;
    EXPECT_EQ(client.ReadToEnd(&ended), both);
    EXPECT_TRUE(ended);
  }
  {
    SCOPED_TRACE("cut at each position");
    RawClient client(served.Port("http"));
    const std::string request = "GET /a HTTP/1.1\r\nx: y\r\n\r\n";
    for (std::size_t cut = 1; cut < request.size(); ++cut) {
      client.Send(request.substr(0, cut));
      client.Send(request.substr(cut));
      ASSERT_EQ(client.ReadUntil("first"), Answer("first")) << cut;
    }
  }
  {
    SCOPED_TRACE("one connection of curl for three requests");
    const auto got = served.Curl("https", "/a",
                                 {"-w", "%{num_connects}", "--next", "--silent", "--cacert",
                                  zrtest::TestCertificate().certificate, "-w", "%{num_connects}",
                                  served.Url("https", "/a")});
    EXPECT_EQ(got.out, "first1first0") << got.err;
  }
  {
    SCOPED_TRACE("garbage is closed without an answer");
    for (const char* bytes :
         {"FOO / HTTP/1.1\r\n\r\n", "\x16\x03\x01\x02\x01\r\n\r\n", "HTTP/1.1 200 OK\r\n\r\n"}) {
      RawClient client(served.Port("http"));
      client.Send(bytes);
      EXPECT_EQ(client.ReadToEnd(), "");
    }
  }
}

TEST(Serve, SendsEveryByteBeforeItCloses) {
  const TemporaryFolder folder;
  const std::string big = Pattern(64 << 20);
  folder.Write("big", big);
  Served served(folder, {"http", "https"});
  for (const char* protocol : {"http", "https"}) {
    SCOPED_TRACE(protocol);
    const auto got = served.Curl(protocol, "/big", {"-H", "Connection: close"});
    EXPECT_EQ(got.status, 0) << got.err;
    EXPECT_TRUE(got.out == big) << got.out.size();
  }
  const auto s_client =
      RunProgram({"openssl", "s_client", "-quiet", "-connect",
                  "127.0.0.1:" + std::to_string(served.Port("https")), "-verify_return_error",
                  "-CAfile", zrtest::TestCertificate().certificate},
                 "GET /none HTTP/1.1\r\nConnection: close\r\n\r\n");
  EXPECT_TRUE(s_client.out.starts_with("HTTP/1.1 404 Not Found\r\n")) << s_client.err;
}

TEST(Serve, RestartsOnItsPortAndRefusesATakenOne) {
  const TemporaryFolder folder;
  folder.Write("a", "first");
  auto first = std::make_unique<Served>(folder, std::vector<std::string>{"http"});
  const int port = first->Port("http");
  const std::string url = "http://127.0.0.1:" + std::to_string(port);
  RawClient open(port);  // leaves a connection behind in the old server
  open.Send("GET /a HTTP/1.1\r\n\r\n");
  EXPECT_EQ(open.ReadUntil("first"), Answer("first"));

  const std::vector<std::string> again = {VELKORO_PROGRAM, "serve", folder.Path(), "--listen", url};
  const auto refused = RunProgram(again);
  EXPECT_EQ(refused.status, 1);
  EXPECT_EQ(refused.out, "");
  EXPECT_NE(refused.err.find("velkoro: port " + std::to_string(port)), std::string::npos);
  EXPECT_NE(refused.err.find("--wait-for-port"), std::string::npos);

  std::vector<std::string> patient = again;
  patient.push_back("--wait-for-port");
  zrtest::BackgroundProgram waiting(patient);
  EXPECT_TRUE(WaitFor([&] { return waiting.Errors().find("trying again") != std::string::npos; }));
  waiting.Signal(SIGTERM);
  EXPECT_TRUE(waiting.WaitForEnd(std::chrono::seconds(20)));
  EXPECT_EQ(waiting.Status(), 0);

  EXPECT_EQ(first->Stop(), 0);
  zrtest::BackgroundProgram second(again);
  EXPECT_TRUE(WaitFor([&] { return second.Output().find(url) != std::string::npos; }));
  EXPECT_EQ(RunProgram(CurlWords({url + "/a"})).out, "first");
}

TEST(Serve, FinishesAnswersWithinTheGraceAfterASignal) {
  const TemporaryFolder folder;
  const std::string big = Pattern(8 << 20);
  folder.Write("big", big);
  for (const int signal : {SIGINT, SIGTERM}) {
    Served served(folder, {"http"}, {"--grace", "20"});
    RawClient slow(served.Port("http"), 4096);
    slow.Send("GET /big HTTP/1.1\r\n\r\n");
    std::string got = slow.ReadSome(1000);
    served.Program().Signal(signal);
    // No new connection, and the one in progress gets its whole answer.
    EXPECT_TRUE(WaitFor([&] { return !RawClient(served.Port("http")).Connected(); }));
    got += slow.ReadToEnd();
    EXPECT_TRUE(got == Answer(big)) << got.size();
    EXPECT_TRUE(served.Program().WaitForEnd());
    EXPECT_EQ(served.Program().Status(), 0);
  }
  Served served(folder, {"http"}, {"--grace", "600"});
  RawClient stuck(served.Port("http"), 4096);
  stuck.Send("GET /big HTTP/1.1\r\n\r\n");
  EXPECT_NE(stuck.ReadSome(1000), "");
  served.Program().Signal(SIGINT);
  EXPECT_TRUE(WaitFor([&] { return !RawClient(served.Port("http")).Connected(); }));
  served.Program().Signal(SIGINT);  // the second one does not wait
  EXPECT_TRUE(served.Program().WaitForEnd(std::chrono::seconds(20)));
  EXPECT_EQ(served.Program().Status(), 0);
}

TEST(Serve, LogsToAFileThatHangUpOpensAgain) {
  const TemporaryFolder folder;
  const TemporaryFolder logs;
  Served served(folder, {"http"}, {"--log", logs.Path("log")});
  const auto logged = [&](const char* file, const char* request) {
    served.Curl("http", request);
    return WaitFor([&] { return ReadFile(logs.Path(file)).find(request) != std::string::npos; });
  };
  EXPECT_TRUE(logged("log", "/one"));
  std::filesystem::rename(logs.Path("log"), logs.Path("old"));
  served.Program().Signal(SIGHUP);
  EXPECT_TRUE(WaitFor([&] { return std::filesystem::exists(logs.Path("log")); }));
  EXPECT_TRUE(logged("log", "/two"));
  EXPECT_EQ(ReadFile(logs.Path("old")).find("/two"), std::string::npos);
  EXPECT_TRUE(served.Log().empty());
  EXPECT_EQ(served.Stop(), 0);
}

TEST(Serve, MakesACertificateOnceAndKeepsIt) {
  const TemporaryFolder folder;
  folder.Write("index.html", "welcome");
  std::string first;
  for (int run = 0; run < 2; ++run) {
    zrtest::BackgroundProgram program(
        {VELKORO_PROGRAM, "serve", folder.Path(), "--listen", "https://localhost:0"}, {},
        {"XDG_STATE_HOME=" + folder.Path("state")});
    const std::regex line("on (https://localhost:[0-9]+/) \\(certificate (.*)\\)\n");
    std::smatch found;
    std::string out;
    ASSERT_TRUE(WaitFor([&] {
      out = program.Output();
      return std::regex_search(out, found, line);
    })) << program.Errors();
    EXPECT_TRUE(found[2].str().starts_with(folder.Path("state") + "/velkoro/"));
    EXPECT_EQ(RunProgram({"curl", "-sS", "--cacert", found[2], found[1]}).out, "welcome");
    if (run == 1) {
      EXPECT_EQ(ReadFile(found[2]), first);
    }
    first = ReadFile(found[2]);
  }
}

TEST(Serve, OpensTheBrowserOnThePageThatItPrints) {
  const TemporaryFolder folder;
  const std::string browser =
      folder.Write("bin/xdg-open", "#!/bin/sh\nprintf '%s' \"$*\" >\"$OPENED\"\n");
  std::filesystem::permissions(browser, std::filesystem::perms::owner_all);
  zrtest::BackgroundProgram program(
      {VELKORO_PROGRAM, "serve", folder.Path(), "--listen", "http://[::1]:0", "--open"}, {},
      {"PATH=" + folder.Path("bin") + ":/usr/bin:/bin", "OPENED=" + folder.Path("opened")});
  EXPECT_TRUE(WaitFor([&] { return !ReadFile(folder.Path("opened")).empty(); }));
  const std::string url = ReadFile(folder.Path("opened"));
  EXPECT_TRUE(std::regex_match(url, std::regex(R"(http://\[::1\]:[1-9][0-9]*)"))) << url;
  EXPECT_TRUE(program.Output().ends_with(" on " + url + "/\n")) << program.Output();
}

TEST(Serve, SaysInOneLineWhatIsWrong) {
  const TemporaryFolder folder;
  const std::string key = zrtest::TestCertificate().privateKey;
  const std::string certificate = zrtest::TestCertificate().certificate;
  const std::string foreign = zr::EnsureSelfSignedCertificate(folder.Path("foreign")).privateKey;
  struct Case {
    std::vector<std::string> words;
    int status;
    std::vector<const char*> says;
  };
  const Case cases[] = {
      {{}, 2, {"--help"}},
      {{"nothing"}, 2, {"nothing", "--help"}},
      {{"serve", "--nothing"}, 2, {"--nothing", "velkoro serve --help"}},
      {{"serve", "--listen", "ftp://a:1"}, 2, {"ftp://a:1"}},
      {{"serve", "--grace", "-1"}, 2, {"--grace"}},
      {{"serve", "--certificate", certificate}, 2, {"--private-key"}},
      {{"serve", folder.Path("none")}, 1, {"none", "is not there"}},
      {{"serve", "--log", folder.Path("none/log"), "--listen", "http://a:0"}, 1, {"none/log"}},
      {{"serve", "--state", "/proc/none"}, 1, {"/proc/none", "--state"}},
      {{"serve", "--certificate", certificate, "--private-key", folder.Path("none")},
       1,
       {"none", "problem with SSL key pair"}},
      {{"serve", "--listen", "http://a:0", "--listen", "https://a:0", "--listen", "https://b:0",
        "--certificate", certificate, "--private-key", foreign},
       1,
       {"foreign", "problem with SSL key pair"}},
  };
  for (const Case& c : cases) {
    std::vector<std::string> words = {VELKORO_PROGRAM};
    words.insert(words.end(), c.words.begin(), c.words.end());
    const auto got = RunProgram(words);
    SCOPED_TRACE(got.err);
    EXPECT_EQ(got.status, c.status);
    EXPECT_EQ(got.out, "");
    EXPECT_EQ(std::count(got.err.begin(), got.err.end(), '\n'), 1);
    EXPECT_TRUE(got.err.starts_with("velkoro: "));
    for (const char* text : c.says) {
      EXPECT_NE(got.err.find(text), std::string::npos) << text;
    }
  }
  EXPECT_EQ(RunProgram({VELKORO_PROGRAM, "--version"}).out, "velkoro 1.28.1\n");
  for (const std::vector<std::string>& words : {std::vector<std::string>{VELKORO_PROGRAM, "--help"},
                                                {VELKORO_PROGRAM, "serve", "--help"}}) {
    const auto help = RunProgram(words);
    EXPECT_EQ(help.status, 0);
    EXPECT_NE(help.out.find("  velkoro serve www"), std::string::npos);
  }
}

}  // namespace
