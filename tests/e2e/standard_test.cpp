// Servers with standard semantics as clients see them: real curl, and raw bytes where no client
// would send them.

#include <gtest/gtest.h>

#include "host/application.h"
#include "http/protocol_kind.h"
#include "http/response_head.h"
#include "tests/support/raw_client.h"
#include "tests/support/run.h"
#include "tests/support/wait.h"

namespace {

using namespace zrtest;

/// Answers with what it was asked.
class Echo : public ZrCommandHandler {
 public:
  std::string Name() const override { return "echo"; }
  void Request(ZrXHeader& request, ZrXResponseHeader& answer, const std::string& command) override {
    answer.SetBodyText(command + ":" + std::string(zr::FieldText(request.allFields, "x")));
    answer.SetField("X-Path", request.path);
    answer.AddField("Set-Cookie", "a=b; Path=/");
    if (command == "made") answer.SetStatus(202);
  }
  void Release() override {}
};

class Standard : public testing::Test {
 protected:
  Standard() {
    folder_.Write("a b", "file");
    ZrOptionMap options;
    options.Set("_baseDirectoryHTTP", folder_.Path());
    options.Set("no_browser_popup", "1");
    ZrServerDefinition server{.address = "127.0.0.1", .protocolKind = zr::kProtocolHttp};
    server.options.Set("semantics", "standard");
    application_ = std::make_unique<ZrQuarnApplication2>(
        nullptr, std::vector<ZrServerDefinition>{server}, options);
    application_->setLogSink([](std::string_view) {});
    application_->registerHandler(&echo_);
    application_->startServers();
    EXPECT_TRUE(WaitFor([&] { return application_->getOptions().Has("tcp_port_http"); }));
    port_ = std::stoi(application_->getOptions().Get("tcp_port_http"));
  }

  RunResult Curl(const std::string& path, std::vector<std::string> words,
                 const std::string& input = {}) {
    words.insert(words.begin(), {"curl", "-s", "-m", "20"});
    words.push_back("http://127.0.0.1:" + std::to_string(port_) + path);
    return RunProgram(words, input);
  }
  /// Status and body.
  std::string Asked(const std::string& path, std::vector<std::string> words = {},
                    const std::string& input = {}) {
    words.insert(words.end(), {"-w", "|%{http_code}"});
    return Curl(path, words, input).out;
  }

  TemporaryFolder folder_;
  Echo echo_;
  std::unique_ptr<ZrQuarnApplication2> application_;
  int port_ = 0;
};

/// The field of a head; "-" when it has none.
std::string Field(const std::string& head, const std::string& name) {
  const std::size_t at = head.find("\r\n" + name + ": ");
  if (at == head.npos) return "-";
  const std::size_t begin = at + name.size() + 4;
  return head.substr(begin, head.find("\r\n", begin) - begin);
}

TEST_F(Standard, ServesRealClients) {
  EXPECT_EQ(Asked("/a%20b"), "file|200");
  EXPECT_EQ(Asked("/%2e%2e/a%20b%2f", {"--path-as-is"}).substr(0, 15), "<!DOCTYPE html>");
  const std::string head = Curl("/a%20b", {"-I"}).out;
  EXPECT_TRUE(head.starts_with("HTTP/1.1 200 OK\r\nDate: ")) << head;
  EXPECT_NE(Asked("/", {"-X", "OPTIONS", "-i"}).find("\r\nAllow: GET, HEAD, POST"), head.npos);
  EXPECT_NE(Asked("", {"-X", "OPTIONS", "--request-target", "*"}).find("|204"), head.npos);
  EXPECT_NE(Asked("/a%20b", {"-T", "-", "-i"}, "x").find("|405"), head.npos);

  const std::string form = "quarnid=echo&quarncommand=made&x=a+b";
  const std::string answer = Asked("/p%C3%BC", {"-d", form, "-i"});
  EXPECT_TRUE(answer.starts_with("HTTP/1.1 202 Accepted\r\n")) << answer;
  EXPECT_NE(answer.find("\r\nSet-Cookie: a=b; Path=/\r\n"), head.npos);
  EXPECT_NE(answer.find("\r\nX-Path: /p\xC3\xBC\r\n"), head.npos);
  EXPECT_TRUE(answer.ends_with("made:a b|202"));
  EXPECT_EQ(Asked("/", {"-d", form, "-H", "Transfer-Encoding: chunked"}), "made:a b|202");
  EXPECT_EQ(Asked("/", {"-F", "quarnid=echo", "-F", "x=y"}), ":y|200");
  for (const char* method : {"PUT", "PATCH", "DELETE"}) {
    EXPECT_EQ(Asked("/?quarnid=echo&x=1", {"-X", method}), ":1|200");
    EXPECT_EQ(Asked("/", {"-X", method, "-d", "quarnid=echo&x=2"}), ":2|200");
  }
  // A large body waits for the word to go on; curl would wait a second for none.
  const std::string big = form + std::string(2 << 20, 'c');
  const RunResult large = Curl("/",
                               {"-v", "-o", "/dev/null", "-H", "Expect: 100-continue",
                                "--expect100-timeout", "30", "--data-binary", "@-"},
                               big);
  EXPECT_NE(large.err.find("HTTP/1.1 100 Continue"), head.npos) << large.err;
  EXPECT_NE(large.err.find("HTTP/1.1 202 Accepted"), head.npos) << large.err;
  // ... and is not sent when there is none.
  const RunResult refused = Curl("/",
                                 {"-v", "-H", "Expect: 100-continue", "-H",
                                  "Content-Length: 999999999", "--data-binary", "@-"},
                                 big);
  EXPECT_EQ(refused.err.find("100 Continue"), head.npos) << refused.err;
  EXPECT_NE(refused.err.find("HTTP/1.1 413 Content Too Large"), head.npos) << refused.err;
}

TEST_F(Standard, AnswersInOrderAndSaysWhyItCloses) {
  struct Case {
    const char* name;
    std::string bytes;
    std::vector<const char*> statuses;
    bool closes;
  };
  const std::string get = "GET /a%20b HTTP/1.1\r\nHost: h\r\n\r\n";
  const std::string post = "POST /?quarnid=echo HTTP/1.1\r\nHost: h\r\nContent-Length: 1\r\n\r\nx";
  const Case cases[] = {
      {"pipelined",
       get + post + post + "HEAD /none HTTP/1.0\r\n\r\n",
       {"200", "200", "200", "404"},
       true},
      {"stays", get + get, {"200", "200"}, false},
      {"malformed", get + "GET / HTTP/1.1\r\n\r\n" + get, {"200", "400"}, true},
      {"smuggled",
       "POST / HTTP/1.1\r\nHost: h\r\nContent-Length: 5\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n"
       "\r\n" +
           get,
       {"400"},
       true},
      {"TLS", "\x16\x03\x01\x02\x03", {"400"}, true},
      {"a long line", "GET /" + std::string(20'000, 'x'), {"414"}, true},
      {"a long head", "GET / HTTP/1.1\r\nX: " + std::string(70'000, 'x'), {"431"}, true},
      {"another version", "GET / HTTP/3.0\r\n\r\n", {"505"}, true},
      {"half a request", get + "GET / HT", {"200"}, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    RawClient client(port_);
    client.Send(c.bytes);
    if (!c.closes) client.FinishSending();
    bool ended = false;
    const std::string got = client.ReadToEnd(&ended);
    EXPECT_TRUE(ended);
    std::size_t at = 0;
    std::vector<std::string> statuses;
    while ((at = got.find("HTTP/1.1 ", at)) != got.npos) statuses.push_back(got.substr(at += 9, 3));
    EXPECT_EQ(statuses, std::vector<std::string>(c.statuses.begin(), c.statuses.end())) << got;
    EXPECT_EQ(got.find("\r\nConnection: close\r\n") != got.npos, c.closes) << got;
  }
}

TEST_F(Standard, BodiesAreCompressedForWhoAcceptsIt) {
  const std::string text = [] {
    std::string lines;
    for (int i = 0; i < 20'000; ++i) lines += "line " + std::to_string(i * i) + "\n";
    return lines;
  }();
  folder_.Write("text.css", text);
  folder_.Write("small.css", "a{}");
  folder_.Write("pre.js", text);
  folder_.Write("pre.js.br", "not what curl can read");
  folder_.WriteProgram("cgi-bin/text", "printf 'Content-Type: text/x\\n\\n'\ncat '" +
                                           folder_.Path("text.css") + "'");
  const std::string form = "/?quarnid=echo&x=" + std::string(4000, 'y');
  struct Case {
    std::string path;
    const char* accepts;
    std::string_view coding;
  };
  const Case cases[] = {{"/text.css", "gzip", "gzip"},         {"/text.css", "gzip", "gzip"},
                        {"/text.css", "gzip;q=0.5, br", "br"}, {"/text.css", "gzip;q=0", "-"},
                        {"/small.css", "gzip", "-"},           {"/a%20b", "gzip", "-"},
                        {"/pre.js", "gzip", "gzip"},           {"/cgi-bin/text", "gzip", "gzip"},
                        {"/cgi-bin/text", "br", "br"},         {form, "gzip", "gzip"}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.path.substr(0, 20) + c.accepts);
    const std::string accepts = std::string("Accept-Encoding: ") + c.accepts;
    const RunResult got = Curl(c.path, {"--compressed", "-H", accepts, "-i"});
    const std::size_t end = got.out.find("\r\n\r\n") + 4;
    EXPECT_EQ(Field(got.out.substr(0, end), "Content-Encoding"), c.coding);
    EXPECT_TRUE(got.out.substr(end) == Curl(c.path, {}).out) << got.err;
    // A version that the client has is not made for it again.
    const std::string tag = Field(got.out, "ETag");
    if (tag == "-") continue;
    EXPECT_EQ(tag.ends_with(std::string(c.coding) + "\""), c.coding != "-");
    EXPECT_EQ(Asked(c.path, {"-H", accepts, "-H", "If-None-Match: " + tag}), "|304");
  }
  EXPECT_EQ(Curl("/pre.js", {"-H", "Accept-Encoding: br"}).out, "not what curl can read");
  EXPECT_EQ(Field(Curl("/pre.js", {"-I"}).out, "Vary"), "Accept-Encoding");
  EXPECT_EQ(Asked("/text.css", {"-r", "0-3", "-H", "Accept-Encoding: br"}), "line|206");
}

// The rest of what is said of files is compared with another server's answers (clients_test.cpp).
TEST_F(Standard, FilesHaveTypesVersionsAndParts) {
  folder_.Write("app.mjs", "export {};");
  folder_.Write(".well-known/x.json", "{}");
  folder_.Write("large", std::string(100'000, 'a') + "z");
  const auto field = [&](const std::string& path, const std::string& name) {
    return Field(Curl(path, {"-D", "-", "-o", "/dev/null"}).out, name);
  };
  EXPECT_EQ(field("/.well-known/x.json", "Content-Type"), "application/json");
  // A version that the client has is not sent again.
  const std::string tag = field("/app.mjs", "ETag");
  const std::string date = field("/app.mjs", "Last-Modified");
  EXPECT_EQ(Asked("/app.mjs", {"-H", "If-None-Match: " + tag}), "|304");
  EXPECT_EQ(Asked("/app.mjs", {"-H", "If-Modified-Since: " + date}), "|304");
  EXPECT_NE(field("/large", "ETag"), tag);
  // Several parts, from memory and from the disk.
  const std::string several = Asked("/app.mjs", {"-r", "0-1,7-7"});
  EXPECT_NE(several.find("bytes 0-1/10\r\n\r\nex\r\n--"), several.npos) << several;
  EXPECT_TRUE(several.ends_with("--\r\n|206"));
  EXPECT_NE(Asked("/large", {"-r", "0-1,99999-"}).find("/100001\r\n\r\naz\r\n--"), several.npos);
  // What a program says in its head is what the answer says.
  folder_.WriteProgram(
      "cgi-bin/go",
      "printf 'Status: 303 Over there\\nLocation: https://a.example/\\nSet-Cookie: "
      "a=1\\nSet-Cookie: b=2\\n\\n%s' \"$REQUEST_URI\"");
  EXPECT_EQ(Asked("/cgi-bin/go?x"), "/cgi-bin/go?x|303");
  EXPECT_EQ(field("/cgi-bin/go", "Location"), "https://a.example/");
  EXPECT_NE(Asked("/none", {"-H", "Accept: application/json"}).find("{\"status\":404"),
            std::string::npos);
}

}  // namespace
