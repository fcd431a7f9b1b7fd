// velkoro get as a user runs it, against our program and a scripted peer.

#include <gtest/gtest.h>

#include "tests/e2e/served.h"
#include "tests/support/scripted_peer.h"
#include "tests/support/wait.h"

using namespace zrtest;

namespace {

RunResult Get(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), {VELKORO_PROGRAM, "get"});
  return RunProgram(arguments);
}

std::string Url(const char* scheme, int port, const std::string& path = "/") {
  return std::string(scheme) + "://127.0.0.1:" + std::to_string(port) + path;
}

std::size_t Lines(const std::string& text) {
  return static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
}

}  // namespace

TEST(Get, AThousandRequestsThroughTenWorkersAreWrittenInOrder) {
  ScriptedPeer peer([](int, PeerConnection& connection) {
    for (;;) {
      const std::string request = connection.ReadRequest();
      if (request.empty()) return;
      const std::string path = request.substr(4, request.find(' ', 4) - 4);
      connection.Send("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n2\r\n" + path +
                      "\r\n0\r\n\r\n");
    }
  });
  TemporaryFolder folder;
  const std::string file = folder.Path("bodies");
  const RunResult run = Get({Url("http", peer.Port(), "/a"), Url("http", peer.Port(), "/b"),
                             "--repeat", "500", "--output", file, "--verbose"});
  EXPECT_EQ(run.status, 0) << run.err;
  std::string expected;
  for (const char* path : {"/a", "/b"}) {
    for (int i = 0; i < 500; ++i) expected += path;
  }
  EXPECT_EQ(ReadFile(file), expected);
  EXPECT_EQ(Lines(run.err), 1000u);
  EXPECT_LE(peer.Count(), 10);
  EXPECT_EQ(RunProgram({VELKORO_OUTGOING, Url("http", peer.Port(), "/a")}).out, "/a");
  // What stands in the file is not lost to a request that fails.
  EXPECT_EQ(Get({"http://no-such-host.invalid/", "--output", file}).status, 1);
  EXPECT_EQ(ReadFile(file), expected);
}

TEST(Get, SendsFormsThatOthersCanRead) {
  std::string seen;
  {
    ScriptedPeer peer([&seen](int, PeerConnection& connection) {
      seen = connection.ReadRequest();
      connection.Send("HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n");
    });
    EXPECT_EQ(
        Get({Url("http", peer.Port(), "/p?q=r"), "--post", "a=1", "--post", "b\"c=x\ny"}).status,
        0);
  }
  EXPECT_TRUE(seen.starts_with("POST /p?q=r HTTP/1.1\r\nhost: 127.0.0.1")) << seen;
  EXPECT_NE(seen.find("\r\nuser-agent: velkoro/1.28.1(96)\r\n"), std::string::npos) << seen;
  const std::size_t mark = seen.find("boundary=") + 9;
  const std::string boundary = seen.substr(mark, seen.find("\r\n", mark) - mark);
  EXPECT_EQ(seen.substr(seen.find("\r\n\r\n") + 4),
            "--" + boundary + "\r\nContent-Disposition: form-data; name=\"a\"\r\n\r\n1\r\n--" +
                boundary + "\r\nContent-Disposition: form-data; name=\"b%22c\"\r\n\r\nx\ny\r\n--" +
                boundary + "--\r\n");
}

TEST(Get, EveryFailureIsOneLine) {
  ScriptedPeer silent([](int, PeerConnection& connection) { connection.ReadToEnd(); });
  ScriptedPeer garbage([](int, PeerConnection& connection) {
    connection.ReadRequest();
    connection.Send("garbage\r\n");
  });
  ScriptedPeer plain(
      [](int, PeerConnection& connection) { connection.Send("HTTP/1.1 400 Bad Request\r\n\r\n"); });
  ScriptedPeer missing([](int, PeerConnection& connection) {
    connection.ReadRequest();
    connection.Send("HTTP/1.1 404 Gone\r\nContent-Length: 4\r\n\r\nbody");
  });
  const RawClient closed(silent.Port());
  struct Case {
    std::string url;
    std::vector<std::string> options;
    const char* said;
    int status = 1;
  };
  const std::vector<Case> cases = {
      {"http://no-such-host.invalid/", {}, "no such host"},
      {Url("http", closed.LocalPort()), {"--repeat", "50"}, "connection refused"},
      {Url("http", silent.Port()), {"--timeout", "0.5"}, "timed out"},
      {Url("https", silent.Port()), {"--timeout", "0.5"}, "timed out"},
      {Url("http", garbage.Port()), {}, "unreadable answer"},
      {Url("https", plain.Port()), {"--insecure"}, "TLS failure"},
      {Url("http", missing.Port()), {}, "status 404"},
      {Url("https", missing.Port()), {"--ca", "/nowhere.pem"}, "/nowhere.pem"},
      {"http:/half", {}, "http:/half", 2},
      {"ftp://127.0.0.1/", {}, "https, http or quarn", 2},
      {"http://127.0.0.1:0/", {}, "port", 2},
      {"http://user@127.0.0.1/", {}, "user names", 2},
      {Url("http", missing.Port()), {"--post", "=x"}, "NAME=VALUE", 2},
      {Url("https", missing.Port()), {"--ca", "a.pem", "--insecure"}, "--insecure", 2},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.url + " " + c.said);
    std::vector<std::string> arguments = {c.url};
    arguments.insert(arguments.end(), c.options.begin(), c.options.end());
    const RunResult run = Get(arguments);
    EXPECT_EQ(run.status, c.status);
    EXPECT_EQ(Lines(run.err), 1u) << run.err;
    EXPECT_NE(run.err.find(c.said), std::string::npos) << run.err;
  }
}
