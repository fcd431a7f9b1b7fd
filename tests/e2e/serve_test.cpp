// The road of a request through the program as its users see it.

#include <gtest/gtest.h>
#include <signal.h>

#include <fstream>
#include <regex>

#include "tests/e2e/served.h"
#include "tests/support/raw_client.h"
#include "tests/support/wait.h"

namespace {

using namespace zrtest;

TEST(Serve, AnswersAndLogsOnEveryProtocol) {
  const TemporaryFolder folder;
  folder.Write("index.html", "welcome");
  Served served(folder, {"https", "http", "quarn", "socket"});
  for (const char* protocol : {"http", "https"}) {
    const auto got = served.Curl(protocol, "/", {"-i", "-A", "test\x1b agent", "-e", "from"});
    EXPECT_EQ(got.out, Answer("welcome")) << got.err;
  }
  RawClient quarn(served.Port("quarn"));
  quarn.Send("GET / QUARN/1.1\r\n\r\n");
  EXPECT_EQ(quarn.ReadUntil("\r\n\r\n"),
            "HTTP/1.1 404 Not Found\r\nServer: velkoro/1.28.1(96)\r\nContent-Length: 0\r\n\r\n");
  RawClient socket(served.Port("socket"));
  EXPECT_TRUE(socket.Send("any bytes at all"));  // taken, and answered by nobody
  socket.FinishSending();
  EXPECT_EQ(socket.ReadToEnd(), "");

  ASSERT_TRUE(served.WaitForLog(3));
  const std::string rest = std::to_string(Answer("welcome").size()) + R"( "from" "test\\x1Bagent")";
  const char* const schemes[] = {"http", "https", "quarn"};
  for (std::size_t i = 0; i < 3; ++i) {
    const std::regex line(
        R"(::ffff:127\.0\.0\.1 - )" + std::string(schemes[i]) +
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
  folder.Write("big", Pattern(300'000));
  folder.Write("x.php.txt", "plain");
  for (const char* hidden : {".hidden", "sub/.git/config", "cgi-bin/hello.sh"}) {
    folder.Write(hidden, "#!/bin/sh\necho source");
  }
  std::filesystem::create_symlink(outside.Path("secret"), folder.Path("out"));
  folder.Write("news", "a file");
  const std::string news = outside.Write("news.txt", std::string("a\0b\xff", 4));
  Served served(folder, {"http"}, {"--page", "news=" + news});
  // A stored page stands before the file of its name.
  EXPECT_EQ(served.Curl("http", "/news").out, std::string("a\0b\xff", 4));
  const std::pair<const char*, const char*> found[] = {{"/page.txt?a=1", "text"},
                                                       {"/sub/deep.txt", "deep"},
                                                       {"/a%20b", "escaped"},
                                                       {"/x.php.txt", "plain"},
                                                       {"/sub", ""},
                                                       {"/sub/", ""}};
  for (const auto& [path, body] : found) {
    EXPECT_EQ(served.Curl("http", path, {"-w", "%{http_code}"}).out, std::string(body) + "200");
  }
  for (const char* path : {"/", "/none", "/sub/../../secret", "/out", "/page.txt/", "//.hidden",
                           "/sub/.git/config", "/cgi-bin//hello.sh", "/sub//deep.txt", "//news"}) {
    const std::string page = served.Curl("http", path, {"-w", "%{http_code}"}).out;
    EXPECT_TRUE(page.ends_with("404")) << path;
    EXPECT_NE(page.find("<title>\nError 404 - not found\n</title>"), std::string::npos) << path;
  }
  RawClient nul(served.Port("http"));
  nul.Send(std::string_view("GET /page.txt\0x HTTP/1.1\r\n\r\n", 29));
  EXPECT_TRUE(nul.ReadUntil("\r\n\r\n").starts_with("HTTP/1.1 404 "));
  // Whatever is sent at once is answered in its order.
  RawClient client(served.Port("http"));
  client.Send(
      "GET /page.txt HTTP/1.1\r\n\r\nGET /big HTTP/1.1\r\n\r\nGET /sub/deep.txt HTTP/1.1\r\n\r\n");
  client.FinishSending();
  bool ended = false;
  EXPECT_EQ(client.ReadToEnd(&ended), Answer("text") + Answer(Pattern(300'000)) + Answer("deep"));
  EXPECT_TRUE(ended);
}

// On kept connections, whose requests arrive together: nothing outlives the requests it was looked
// up for.
TEST(Serve, AFileIsAsItIsWhenItIsAskedFor) {
  for (const Semantics semantics : {Semantics::kMinimal, Semantics::kStandard}) {
    const TemporaryFolder aside;
    const TemporaryFolder folder;
    const std::string page = folder.Write("page", "begin");
    const Served served(folder, {"http"}, {}, semantics);
    std::vector<RawClient> clients;
    for (int i = 0; i < 4; ++i) clients.emplace_back(served.Port("http"));
    for (int turn = 0; turn < 50; ++turn) {
      SCOPED_TRACE(turn);
      std::string body = "turn " + std::to_string(turn) + ";";
      switch (turn % 5) {
        case 0:
          std::filesystem::rename(folder.Write("new", body), page);
          break;
        case 1:
          folder.Write("page", body);
          break;
        case 2:
          body = "turn ";
          std::filesystem::resize_file(page, body.size());
          break;
        case 3:
          body = "</html>";
          std::filesystem::remove(page);
          break;
        default:  // the whole directory is another one
          std::filesystem::rename(folder.Path(), aside.Path(std::to_string(turn)));
          folder.Write("page", body);
      }
      for (RawClient& client : clients) client.Send("GET /page HTTP/1.1\r\nHost: h\r\n\r\n");
      for (RawClient& client : clients) {
        const std::string got = client.ReadUntil(body);
        const std::string head = got.substr(0, got.find("\r\n\r\n") + 4);
        ASSERT_EQ(head.substr(9, 3), turn % 5 == 3 ? "404" : "200");
        if (turn % 5 != 3) {
          ASSERT_EQ(got, head + body);
        }
      }
    }
  }
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
  EXPECT_TRUE(refused.err.starts_with("velkoro: port " + std::to_string(port))) << refused.err;
  EXPECT_EQ(std::count(refused.err.begin(), refused.err.end(), '\n'), 1) << refused.err;

  std::vector<std::string> patient = again;
  patient.push_back("--wait-for-port");
  BackgroundProgram waiting(patient);
  EXPECT_TRUE(WaitFor([&] { return waiting.Errors().find("trying again") != std::string::npos; }));
  waiting.Signal(SIGTERM);
  EXPECT_TRUE(waiting.WaitForEnd(std::chrono::seconds(20)));
  EXPECT_EQ(waiting.Status(), 0);

  EXPECT_EQ(first->Stop(), 0);
  BackgroundProgram second(again);
  EXPECT_TRUE(WaitFor([&] { return second.Output().find(url) != std::string::npos; }));
  EXPECT_EQ(RunProgram(CurlWords({url + "/a"})).out, "first");
}

TEST(Serve, FinishesAnswersWithinTheGraceAfterASignal) {
  const TemporaryFolder folder;
  const std::string big = Pattern(8 << 20);
  folder.Write("big", big);
  for (const int second : {0, SIGINT}) {
    Served served(folder, {"http"}, {"--grace", "600"});
    RawClient slow(served.Port("http"), 4096);
    slow.Send("GET /big HTTP/1.1\r\n\r\n");
    std::string got = slow.ReadSome(1000);
    EXPECT_NE(got, "");
    served.Program().Signal(second == 0 ? SIGTERM : SIGINT);
    EXPECT_TRUE(WaitFor([&] { return !RawClient(served.Port("http")).Connected(); }));
    // The one in progress gets its whole answer, but for a second signal.
    if (second == 0) got += slow.ReadToEnd();
    served.Program().Signal(second);
    EXPECT_TRUE(served.Program().WaitForEnd(std::chrono::seconds(20)));
    EXPECT_EQ(served.Program().Status(), 0);
    EXPECT_EQ(got == Answer(big), second == 0) << got.size();
  }
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
    BackgroundProgram program(
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
    if (run == 0) first = ReadFile(found[2]);
    EXPECT_EQ(ReadFile(found[2]), first);
  }
}

TEST(Serve, OpensTheBrowserOnThePageThatItPrints) {
  const TemporaryFolder folder;
  folder.Write("bin/xdg-open", "no program");  // the next of the list is tried
  folder.WriteProgram("bin/opera", R"(printf '%s' "$*" >"$OPENED")");
  BackgroundProgram program(
      {VELKORO_PROGRAM, "serve", folder.Path(), "--listen", "http://[::1]:0", "--open"}, {},
      {"PATH=" + folder.Path("bin"), "OPENED=" + folder.Path("opened")});
  EXPECT_TRUE(WaitFor([&] { return !ReadFile(folder.Path("opened")).empty(); }));
  const std::string url = ReadFile(folder.Path("opened"));
  EXPECT_TRUE(std::regex_match(url, std::regex(R"(http://\[::1\]:[1-9][0-9]*)"))) << url;
  EXPECT_TRUE(WaitFor([&] { return program.Output().ends_with(" on " + url + "/\n"); }));
  const std::string id = std::to_string(program.Id());
  EXPECT_TRUE(WaitFor([&] { return RunProgram({"pgrep", "-P", id}).status == 1; })) << "no child";
}

TEST(Serve, TakesADirectoryAsTheKernelDoes) {
  const TemporaryFolder folder;
  folder.Write("there/below/file", "");
  std::filesystem::create_symlink(folder.Path("there/below"), folder.Path("link"));
  const auto serves = [&](const std::string& given, const std::string& directory) {
    BackgroundProgram program(
        {VELKORO_PROGRAM, "serve", folder.Path(given), "--listen", "http://127.0.0.1:0"});
    return WaitFor([&] {
      return program.Output().starts_with("velkoro: serving " + folder.Path(directory) + " on ");
    });
  };
  EXPECT_TRUE(serves("link/..", "there"));
  EXPECT_TRUE(serves("./link//", "link"));  // which may be pointed elsewhere later
}

TEST(Serve, SaysInOneLineWhatIsWrong) {
  const TemporaryFolder folder;
  const std::string key = TestCertificate().privateKey;
  const std::string certificate = TestCertificate().certificate;
  const std::string foreign = zr::EnsureSelfSignedCertificate(folder.Path("foreign")).privateKey;
  std::ofstream(folder.Write("sparse", "")).close();
  std::filesystem::resize_file(folder.Path("sparse"), (256u << 20) + 1);
  folder.Write("half/localhost/certificate.pem", ReadFile(certificate));
  folder.Write("broken/localhost/certificate.pem", ReadFile(certificate));
  folder.Write("broken/localhost/private-key.pem", ReadFile(foreign));
  folder.Write("file/localhost", "");
  struct Case {
    std::vector<std::string> words;
    int status;
    std::vector<const char*> says;
  };
  const Case cases[] = {
      {{}, 2, {"--help"}},
      {{"serve", "--nothing"}, 2, {"--nothing", "velkoro serve --help"}},
      {{"serve", folder.Path("none")}, 1, {"none", "is not there"}},
      {{"serve", "--log", folder.Path("none/log"), "--listen", "http://a:0"}, 1, {"none/log"}},
      {{"serve", "--state", "/proc/none"}, 1, {"/proc/none", "--state"}},
      {{"serve", "--page", "name"}, 2, {"--page name: give NAME=FILE"}},
      {{"serve", "--page", ".hidden=" + key}, 2, {"without a leading dot"}},
      {{"serve", "--page", "a=" + folder.Path(), "--listen", "http://a:0"}, 1, {"is a directory"}},
      {{"serve", "--page", "a=" + folder.Path("none")}, 1, {"none' for --page a is not there"}},
      {{"serve", "--page", "a=/dev/null"}, 1, {"is no regular file"}},
      {{"serve", "--page", "a=" + folder.Path("sparse")}, 1, {"is longer than 256 MiB"}},
      {{"serve", ""}, 2, {"empty name"}},
      {{"serve", "--minimal", "--browse"}, 2, {"--minimal excludes --browse"}},
      {{"serve", "--header", "X"}, 2, {"give 'NAME: VALUE'"}},
      {{"serve", "--header", "X Y: 1"}, 2, {"the name is no token"}},
      {{"serve", "--header", "X: 1\r\nY: 2"}, 2, {"control character"}},
      {{"serve", "--header", "Content-Length: 2"}, 2, {"the server's own"}},
      {{"serve", "--header", "Cache-Control: x", "--cache", "1"}, 2, {"give one of them"}},
      {{"serve", "--cache", "-1"}, 2, {"--cache"}},
      {{"serve", "--type", "x=y"}, 2, {"--type x=y: give EXT=TYPE"}},
      {{"serve", "--error-page", "200=" + key}, 2, {"give STATUS=FILE"}},
      {{"serve", "--error-page", "404=" + folder.Path("none")}, 1, {"404 is not there"}},
      {{"serve", "--fallback", "../x"}, 2, {"beneath the document directory"}},
      {{"serve", "--fallback", "none"}, 1, {"'none' for --fallback is not in"}},
      {{"serve", "--log-format", "x"}, 2, {"--log-format"}},
      {{"serve", certificate}, 1, {"is a file; name a directory"}},
      {{"serve", "--grace", "nan"}, 2, {"'nan' is no number from 0 to 86400"}},
      {{"serve", "--php", "no-such-php"}, 1, {"no program 'no-such-php' on PATH"}},
      {{"serve", "--php", certificate}, 1, {"is no program that can be run"}},
      {{"serve", "--state", folder.Path("half")}, 1, {"half/localhost", "is incomplete"}},
      {{"serve", "--state", folder.Path("broken")}, 1, {"broken/localhost", "remove that folder"}},
      {{"serve", "--state", folder.Path("file")}, 1, {"file/localhost"}},
      {{"serve", folder.Path("none"), "--state", folder.Path("state")}, 1, {"is not there"}},
      {{"serve", "--certificate", certificate, "--listen", "http://a:0"}, 2, {"--private-key"}},
      {{"serve", "--certificate", certificate, "--private-key", folder.Path("none")},
       1,
       {"none' is not there"}},
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
    for (const char* text : c.says) EXPECT_NE(got.err.find(text), std::string::npos) << text;
  }
  for (const auto& entry : std::filesystem::recursive_directory_iterator(folder.Path())) {
    EXPECT_EQ(entry.path().string().find("localhost."), std::string::npos) << entry.path();
  }
  EXPECT_FALSE(std::filesystem::exists(folder.Path("state")));
  EXPECT_EQ(RunProgram({VELKORO_PROGRAM, "--version"}).out, "velkoro 1.28.1\n");
  const auto help = RunProgram({VELKORO_PROGRAM, "serve", "--help"});
  EXPECT_EQ(help.status, 0);
  EXPECT_NE(help.out.find("  velkoro serve www"), std::string::npos);
}

}  // namespace
