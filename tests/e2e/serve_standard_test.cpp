// `velkoro serve` in standard semantics, a site as its clients see it.

#include <gtest/gtest.h>

#include <filesystem>

#include "tests/e2e/served.h"
#include "tests/support/raw_client.h"

namespace {

using namespace zrtest;

struct Case {
  const char* path;
  std::vector<std::string> words;  // of curl
  std::string expected;            // status, type, and what the fields below say
};

class ServeStandard : public testing::Test {
 protected:
  ServeStandard() {
    folder_.Write("index.html", "start");
    folder_.Write("dir/index.html", "inside");
    folder_.Write("p q.svg", "<svg xmlns=\"http://www.w3.org/2000/svg\"/>");
    folder_.Write("app.mjs", "export {};");
    folder_.Write("big.bin", big_);
    folder_.Write("data.mine", "mine");
    folder_.Write("list/b.txt", "b");
    folder_.Write("list/<a>.txt", "a");
    folder_.Write("list/.hidden", "");
    std::filesystem::create_symlink("/etc/passwd", folder_.Path("list/out"));
    std::filesystem::create_symlink("b.txt", folder_.Path("list/in"));
    folder_.WriteProgram("cgi-bin/echo", R"(printf 'Content-Type: text/plain\n\n%s' )"
                                         R"("$REQUEST_METHOD $CONTENT_LENGTH $REMOTE_ADDR "; cat)");
  }
  void Serve(const std::vector<std::string>& options) {
    served_ = std::make_unique<Served>(folder_, std::vector<std::string>{"http"}, options,
                                       Semantics::kStandard);
  }
  /// Body and status, then what `write` says of the answer.
  std::string Curl(const std::string& path, std::vector<std::string> words = {},
                   const std::string& write = {}, const std::string& input = {}) {
    words.insert(words.begin(), {"curl", "-s", "-m", "50", "--path-as-is"});
    words.insert(words.end(), {"-w", "|%{http_code}" + write, served_->Url("http", path)});
    return RunProgram(words, input).out;
  }
  void Expect(const Case& c, const std::string& frame = {}) {
    const std::string said = Curl(c.path, c.words,
                                  " %{content_type} %header{content-range}%header{location}"
                                  "%header{allow}%header{cache-control};%header{x-frame-options}");
    EXPECT_EQ(said.substr(said.rfind('|') + 1), c.expected + ";" + frame) << c.path;
  }

  const std::string big_ = Pattern(300'000);
  const TemporaryFolder folder_;
  const TemporaryFolder work_;
  std::unique_ptr<Served> served_;
};

// Where other servers answer otherwise is in docs/http.md.
TEST_F(ServeStandard, AnswersSayWhatBecameOfTheRequest) {
  Serve({"--log-format", "combined"});
  const std::string page = " text/html; charset=utf-8 ";
  const std::string bytes = " application/octet-stream ";
  const std::string script = " text/javascript; charset=utf-8 ";
  const Case cases[] = {
      {"/app.mjs", {}, "200" + script},
      {"/p%20q.svg", {"-I"}, "200 image/svg+xml "},
      {"/", {"-0"}, "200" + page},
      {"/big.bin", {"-r", "0-9"}, "206" + bytes + "bytes 0-9/300000"},
      {"/big.bin", {"-r", "-5"}, "206" + bytes + "bytes 299995-299999/300000"},
      {"/big.bin", {"-r", "400000-"}, "416" + page + "bytes */300000"},
      {"/big.bin", {"-r", "9-5"}, "200" + bytes},
      {"/big.bin", {"-H", "If-Match: \"x\""}, "412" + page},
      {"/big.bin", {"-H", "If-Range: \"x\"", "-r", "0-9"}, "200" + bytes},
      {"/big.bin", {"-H", "If-None-Match: *"}, "304  "},
      {"/big.bin", {"-H", "If-Modified-Since: Fri, 01 Jan 2100 00:00:00 GMT"}, "304  "},
      {"/dir?x", {}, "301" + page + "/dir/?x"},
      {"/none", {}, "404" + page},
      {"/app.mjs/", {}, "404" + page},
      {"/.hidden", {}, "404" + page},
      {"/list/.hidden", {}, "404" + page},
      {"/list/out", {}, "404" + page},
      {"/list/in", {}, "200" + bytes},
      {"/list/", {}, "404" + page},
      {"//big.bin", {}, "404" + page},
      {"/dir%2findex.html", {}, "400" + page},
      {"/../../dir/index.html", {}, "200" + page},
      {"/%zz", {}, "400" + page},
      {"/", {"-H", "Host:"}, "400" + page},
      {"/app.mjs", {"-H", "X-Long: " + std::string(70'000, 'x')}, "431" + page},
      {"/big.bin", {"-X", "DELETE"}, "405" + page + "GET, HEAD, POST, OPTIONS"},
      {"/app.mjs", {"-T", "-"}, "405" + page + "GET, HEAD, POST, OPTIONS"},
      {"/app.mjs", {"-X", "OPTIONS"}, "204  GET, HEAD, POST, PUT, PATCH, DELETE, OPTIONS"},
      {"/big.bin", {"-X", "BREW"}, "501" + page},
      {"/app.mjs", {"-X", "get"}, "501" + page},
      {"/app.mjs", {"-d", "x"}, "200" + script},
  };
  for (const Case& c : cases) Expect(c);
  // Uploads of a known and of an unknown length, a download that goes on where it stopped.
  EXPECT_EQ(Curl("/cgi-bin/echo", {"-T", folder_.Path("data.mine")}), "PUT 4 127.0.0.1 mine|200");
  EXPECT_EQ(Curl("/cgi-bin/echo", {"-T", "-"}, {}, "mine"), "PUT 4 127.0.0.1 mine|200");
  const std::string part = work_.Write("part", big_.substr(0, 1000));
  for (const char* status : {"|206", "|416"}) {
    EXPECT_EQ(Curl("/big.bin", {"-C", "-", "-o", part}), status);
    EXPECT_EQ(ReadFile(part), big_);
  }
  Curl("/none");
  served_->Stop();
  const std::string last = served_->Log().back();
  EXPECT_TRUE(last.starts_with("127.0.0.1 - - [")) << last;
  EXPECT_NE(last.find("GET /none HTTP/1.1\" 404 199 \"-\" \"curl/"), last.npos) << last;
}

TEST_F(ServeStandard, TheSiteIsAsItsOptionsSay) {
  const std::string missing = work_.Write("missing.html", "<p>gone");
  folder_.Write("app.html", "the app");
  std::filesystem::remove(folder_.Path("index.html"));
  Serve({"--browse", "--fallback", "app.html", "--header", "X-Frame-Options: DENY", "--header",
         "Vary:  Origin ", "--cache", "60", "--type", "mine=text/x-mine", "--type",
         ".svg=image/other", "--error-page", "404=" + missing, "--log-format", "json"});
  const std::string html = "Accept: text/html,*/*;q=0.8";
  const std::string page = " text/html; charset=utf-8 ";
  const Case cases[] = {
      {"/data.mine", {}, "200 text/x-mine; charset=utf-8 max-age=60"},
      {"/p%20q.svg", {"-H", "If-None-Match: *"}, "304  max-age=60"},
      {"/p%20q.svg", {}, "200 image/other max-age=60"},
      {"/list", {"-H", html}, "301" + page + "/list/"},
      {"/route/of/app", {"-H", html}, "200" + page + "max-age=60"},
      {"/route.js", {}, "404" + page},
      {"/.hidden", {"-H", html}, "404" + page},
      {"/route", {"-H", html, "-d", "x"}, "404" + page},
      {"/route", {"-H", "Accept: application/json"}, "404 application/problem+json "},
      {"/cgi-bin/echo", {}, "200 text/plain "},
      {"/", {"-H", "Host:"}, "400" + page},
      {"/list/", {"-X", "PUT"}, "405" + page + "GET, HEAD, POST, OPTIONS"},
  };
  for (const Case& c : cases) Expect(c, "DENY");
  EXPECT_NE(Curl("/data.mine", {"-i"}).find("\r\nVary: Origin\r\n"), page.npos);
  EXPECT_EQ(Curl("/route.js"), "<p>gone|404");
  EXPECT_EQ(Curl("/route/of/app", {"-H", html}), "the app|200");
  const std::string list = Curl("/list/");
  for (const char* shown : {"./%3Ca%3E.txt", "&lt;a&gt;.txt", "./in\"", "\"../\""})
    EXPECT_NE(list.find(shown), list.npos) << shown << list;
  for (const char* hidden : {".hidden", "./out"}) EXPECT_EQ(list.find(hidden), list.npos) << list;
  served_->Stop();
  const auto log = served_->Log();
  ASSERT_EQ(log.size(), std::size(cases) + 4);
  EXPECT_NE(log[10].find(R"("target":"/","protocol":"HTTP/1.1","status":400)"), html.npos)
      << log[10];
}

TEST_F(ServeStandard, AnswersInOrderAndSaysWhyItCloses) {
  Serve({});
  struct Exchange {
    const char* name;
    std::string bytes;
    std::string statuses;
    bool closes;
  };
  const std::string get = "GET /app.mjs HTTP/1.1\r\nHost: h\r\n\r\n";
  const std::string post = "POST /cgi-bin/echo HTTP/1.1\r\nHost: h\r\n";
  const std::string two = post + "Content-Length: 1\r\n\r\nx" + post + "Content-Length: 0\r\n\r\n";
  const Exchange exchanges[] = {
      {"pipelined", get + two + "HEAD /none HTTP/1.0\r\n\r\n", "200 200 200 404 ", true},
      {"stays", get + get, "200 200 ", false},
      {"malformed", get + "GET / HTTP/1.1\r\n\r\n" + get, "200 400 ", true},
      {"smuggled", post + "Content-Length: 5\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n" + get,
       "400 ", true},
      {"a long line", "GET /" + std::string(20'000, 'x'), "414 ", true},
      {"a proxy's check", "OPTIONS / HTTP/1.0\r\n\r\n", "204 ", true},
      {"half a request", get + "GET / HT", "200 ", false},
  };
  for (const Exchange& c : exchanges) {
    SCOPED_TRACE(c.name);
    RawClient client(served_->Port("http"));
    client.Send(c.bytes);
    if (!c.closes) client.FinishSending();
    bool ended = false;
    const std::string got = client.ReadToEnd(&ended);
    EXPECT_TRUE(ended);
    std::string statuses;
    for (std::size_t at = 0; (at = got.find("HTTP/1.1 ", at)) != got.npos;)
      statuses += got.substr(at += 9, 4);
    EXPECT_EQ(statuses, c.statuses) << got;
    EXPECT_EQ(got.find("\r\nConnection: close\r\n") != got.npos, c.closes) << got;
  }
  // A large body waits for the word to go on; curl would wait a second for none.
  const std::vector<std::string> waits = {"-v",
                                          "--stderr",
                                          "-",
                                          "-o",
                                          "/dev/null",
                                          "--data-binary",
                                          "@-",
                                          "-H",
                                          "Expect: 100-continue",
                                          "--expect100-timeout",
                                          "30"};
  const std::string large = Curl("/cgi-bin/echo", waits, {}, big_);
  EXPECT_NE(large.find("HTTP/1.1 100 Continue"), large.npos) << large;
  EXPECT_TRUE(large.ends_with("|200")) << large;
  // ... and is not sent when there is none.
  std::vector<std::string> more = waits;
  more.insert(more.end(), {"-H", "Content-Length: 999999999"});
  const std::string refused = Curl("/cgi-bin/echo", more, {}, big_);
  EXPECT_EQ(refused.find("100 Continue"), refused.npos) << refused;
  EXPECT_TRUE(refused.ends_with("|413")) << refused;
}

TEST_F(ServeStandard, BodiesAreCompressedForWhoAcceptsIt) {
  std::string text;
  for (int i = 0; i < 20'000; ++i) text += "line " + std::to_string(i * i) + "\n";
  const std::string file = folder_.Write("text.css", text);
  folder_.Write("pre.js", text);
  folder_.Write("pre.js.br", "not what curl can read");
  folder_.WriteProgram("cgi-bin/text", "printf 'Content-Type: text/x\\n\\n'; cat '" + file + "'");
  Serve({"--page", "stored=" + file});
  const struct {
    const char* path;
    const char* accepts;
    std::string coding;
  } cases[] = {{"/text.css", "gzip", "gzip"},
               {"/text.css", "gzip", "gzip"},
               {"/text.css", "gzip;q=0.5, br", "br"},
               {"/text.css", "gzip;q=0", ""},
               {"/app.mjs", "gzip", ""},
               {"/big.bin", "gzip", ""},
               {"/pre.js", "gzip", "gzip"},
               {"/cgi-bin/text", "gzip", "gzip"},
               {"/cgi-bin/text", "br", "br"},
               {"/stored", "gzip", "gzip"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.path) + c.accepts);
    const std::string accepts = std::string("Accept-Encoding: ") + c.accepts;
    const std::string got =
        Curl(c.path, {"--compressed", "-H", accepts}, "|%header{content-encoding}|%header{etag}");
    const std::string tag = got.substr(got.rfind('|') + 1);
    EXPECT_TRUE(got == Curl(c.path) + "|" + c.coding + "|" + tag);
    // A version that the client has is not made for it again.
    if (tag.empty()) continue;
    EXPECT_EQ(tag.ends_with((c.coding.empty() ? "gzip" : c.coding) + "\""), !c.coding.empty());
    EXPECT_EQ(Curl(c.path, {"-H", accepts, "-H", "If-None-Match: " + tag}), "|304");
  }
  EXPECT_EQ(Curl("/pre.js", {"-H", "Accept-Encoding: br"}), "not what curl can read|200");
  EXPECT_TRUE(Curl("/pre.js", {"-I"}, "%header{vary}").ends_with("|200Accept-Encoding"));
  EXPECT_EQ(Curl("/text.css", {"-r", "0-3", "-H", "Accept-Encoding: br"}), "line|206");
  const std::string several = Curl("/text.css", {"-r", "0-1,5-5"});
  EXPECT_NE(several.find("\r\n\r\nli\r\n--"), several.npos) << several;
  EXPECT_TRUE(several.ends_with("--\r\n|206"));
}

}  // namespace
