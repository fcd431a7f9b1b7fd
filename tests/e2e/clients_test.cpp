// `velkoro serve` in standard semantics before clients, proxies and a peer of other makes.

#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <sstream>

#include "tests/e2e/served.h"
#include "tests/support/raw_client.h"
#include "tests/support/wait.h"

namespace {

using namespace zrtest;

/// A site with what the clients below ask for.
class Clients : public testing::Test {
 protected:
  Clients() {
    folder_.Write("index.html",
                  "<a href=\"dir/\">d</a><img src=\"p%20q.svg\"><script src=app.mjs>");
    folder_.Write("dir/index.html", "<a href=\"../index.html\">back</a>");
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
    folder_.WriteProgram("cgi-bin/port", R"(printf 'Content-Type: text/plain\n\n%s' $REMOTE_PORT)");
    folder_.Write("long.css", std::string(50'000, ' '));
  }
  void Serve(const std::vector<std::string>& options = {}) {
    served_ = std::make_unique<Served>(folder_, std::vector<std::string>{"http"}, options,
                                       Semantics::kStandard);
  }
  std::string Url(const std::string& path = {}) const { return served_->Url("http", path); }
  /// Status and body, then what `write` says of the answer.
  std::string Curl(const std::string& path, std::vector<std::string> words = {},
                   const std::string& write = {}, const std::string& input = {}) {
    words.insert(words.begin(), {"curl", "-s", "-m", "50", "--path-as-is"});
    words.insert(words.end(), {"-w", "|%{http_code}" + write, Url(path)});
    return RunProgram(words, input).out;
  }
  /// A program that runs beside the server and makes that socket when it can be talked to.
  void Start(const std::vector<std::string>& words, const std::string& socket) {
    beside_.push_back(std::make_unique<BackgroundProgram>(words));
    ASSERT_TRUE(WaitFor([&] { return std::filesystem::exists(socket); }))
        << beside_.back()->Errors();
  }
  /// An nginx that serves the site at one socket and is a proxy before the server at another.
  void StartNginx() {
    std::string servers;
    for (const char* name : {"files", "proxy"}) {
      servers += "server { listen unix:" + work_.Path(name) + "; server_name 127.0.0.1; root " +
                 folder_.Path() + "; location / { " +
                 (name == std::string("proxy") ? "proxy_pass " + Url() + "; " : "") + "} }\n";
    }
    const std::string configuration = work_.Write(
        "nginx.conf",
        "daemon off; master_process off; pid pid; error_log error;\nevents {}\nhttp {\n"
        "types { text/html html; text/javascript mjs; text/css css; image/svg+xml svg; }\n"
        "gzip on; gzip_min_length 1024; gzip_types text/css;\n"
        "default_type application/octet-stream;\naccess_log off; client_body_temp_path t1; "
        "proxy_temp_path t2; fastcgi_temp_path t3;\nuwsgi_temp_path t4; scgi_temp_path t5;\n" +
            servers + "}\n");
    Start({"nginx", "-p", work_.Path(), "-e", "error", "-c", configuration}, work_.Path("pid"));
  }

  const std::string big_ = Pattern(300'000);
  const TemporaryFolder folder_;
  const TemporaryFolder work_;
  std::unique_ptr<Served> served_;
  std::vector<std::unique_ptr<BackgroundProgram>> beside_;
};

TEST_F(Clients, Tools) {
  Serve({"--log-format", "combined"});
  // curl: uploads of a known and of an unknown length, a download that goes on where it stopped.
  const std::string upload = folder_.Path("data.mine");
  EXPECT_EQ(Curl("/cgi-bin/echo", {"-T", upload}), "PUT 4 127.0.0.1 mine|200");
  EXPECT_EQ(Curl("/cgi-bin/echo", {"-T", "-"}, {}, "mine"), "PUT 4 127.0.0.1 mine|200");
  EXPECT_EQ(Curl("/cgi-bin/echo", {"-X", "DELETE"}), "DELETE  127.0.0.1 |200");
  const std::string part = work_.Write("part", big_.substr(0, 1000));
  for (const char* status : {"|206", "|416"}) {
    EXPECT_EQ(Curl("/big.bin", {"-C", "-", "-o", part}), status);
    EXPECT_EQ(ReadFile(part), big_);
  }
  // wget: the same, and a whole site, twice.
  std::filesystem::remove(part);
  work_.Write("big.bin", big_.substr(0, 1000));
  const auto wget = [&](std::vector<std::string> words) {
    words.insert(words.begin(), {"wget", "-nv", "-T", "20", "-t", "1", "-P", work_.Path()});
    return RunProgram(words);
  };
  EXPECT_EQ(wget({"-c", Url("/big.bin")}).status, 0);
  EXPECT_EQ(ReadFile(work_.Path("big.bin")), big_);
  for (int run = 0; run < 2; ++run) {
    const RunResult mirror = wget({"-m", "-nH", Url("/")});
    EXPECT_EQ(mirror.status, 0) << mirror.err;
    EXPECT_EQ(mirror.err.find("URL:") == std::string::npos, run == 1) << mirror.err;
  }
  for (const char* file : {"index.html", "dir/index.html", "p q.svg", "app.mjs"})
    EXPECT_EQ(ReadFile(work_.Path(file)), ReadFile(folder_.Path(file))) << file;
  // ab speaks the old version, with and without keeping connections.
  for (const char* keep : {"-k", "-q"}) {
    const RunResult ab = RunProgram({"ab", "-q", keep, "-n", "200", "-c", "4", Url("/app.mjs")});
    EXPECT_NE(ab.out.find("Complete requests:      200\nFailed requests:        0"), ab.out.npos)
        << ab.out << ab.err;
    EXPECT_EQ(ab.out.find("Keep-Alive requests:    200") != ab.out.npos, keep == std::string("-k"));
  }
  const RunResult python = RunProgram({"python3", "-c", R"(
import http.client, sys
c = http.client.HTTPConnection("127.0.0.1", int(sys.argv[1]), timeout=20)
for method, path, body, chunked in (("GET", "/app.mjs", None, False), ("HEAD", "/dir/", None, False),
    ("POST", "/cgi-bin/echo", iter([b"a", b"bc"]), True), ("PATCH", "/app.mjs", b"x", False),
    ("OPTIONS", "*", None, False), ("GET", "/none", None, False), ("GET", "/app.mjs", None, False)):
    c.request(method, path, body, encode_chunked=chunked, headers={"Transfer-Encoding": "chunked"} if chunked else {})
    sock = c.sock
    r = c.getresponse()
    # A program's answer has a length when it came at once.
    print(r.status, len(r.read()), "-" if chunked else r.getheader("Content-Length"), c.sock is sock)
)",
                                       std::to_string(served_->Port("http"))});
  EXPECT_EQ(python.out,
            "200 10 10 True\n200 0 32 True\n200 20 - True\n405 235 235 True\n204 0 None True\n"
            "404 199 199 True\n200 10 10 True\n")
      << python.err;
  served_->Stop();
  const std::vector<std::string> log = served_->Log();
  const auto last = std::find_if(log.rbegin(), log.rend(), [](const std::string& line) {
    return line.find("GET /none HTTP/1.1\" 404 199 \"-\" \"-\"") != std::string::npos;
  });
  ASSERT_NE(last, log.rend());
  EXPECT_TRUE(last->starts_with("127.0.0.1 - - [")) << *last;
}

// Node's fetch: streams in both directions, one connection for what comes after each other.
TEST_F(Clients, NodeFetches) {
  Serve();
  const RunResult node = RunProgram({"timeout", "50", "node", "-e", R"(
const base = process.argv[1];
const ask = async (path, options) => {
  const answer = await fetch(base + path, { signal: AbortSignal.timeout(20000), ...options });
  const body = await answer.arrayBuffer();
  return [answer.status, body.byteLength, answer.headers, answer, Buffer.from(body).toString("latin1")];
};
const show = (...values) => console.log(values.join(" "));
(async () => {
  const [status, size, fields] = await ask("/app.mjs", { method: "HEAD" });
  show("head", status, size, fields.get("content-length"), fields.get("content-type"));
  // It closes its connection behind a HEAD, and keeps that of all others.
  const connections = new Set([(await ask("/cgi-bin/port"))[4]]);
  const parts = new ReadableStream({ async pull(stream) {
    for (const part of ["a stream ", "of parts"]) {
      await new Promise(setImmediate);
      stream.enqueue(Buffer.from(part));
    }
    stream.close();
  } });
  show("stream", (await ask("/cgi-bin/echo", { method: "PUT", body: parts, duplex: "half" }))[4]);
  const [, , , moved] = await ask("/dir?x=y");
  show("redirect", moved.status, moved.redirected, moved.url.slice(base.length));
  const [stays, , go] = await ask("/dir", { redirect: "manual" });
  show("by hand", stays, go.get("location"));
  for (const coding of ["gzip", "br", "identity"]) {
    const [, length, got] = await ask("/long.css", { headers: { "accept-encoding": coding } });
    const [again, none] = await ask("/long.css",
        { headers: { "accept-encoding": coding, "if-none-match": got.get("etag") } });
    show(coding, length, got.get("content-encoding"), got.get("vary"), again, none);
  }
  const [part, few, range] = await ask("/big.bin", { headers: { range: "bytes=-7" } });
  show("range", part, few, range.get("content-range"));
  const missing = await fetch(base + "/none", { headers: { accept: "application/json" } });
  show("json", JSON.stringify(await missing.json()));
  connections.add((await ask("/cgi-bin/port"))[4]);
  show("connections", connections.size);
  const given = new AbortController();
  const large = await fetch(base + "/big.bin", { signal: given.signal });
  given.abort();
  show("given up", await large.text().catch((error) => error.name), (await ask("/big.bin"))[1]);
})();
)",
                                     Url()});
  EXPECT_EQ(node.out,
            "head 200 0 10 text/javascript; charset=utf-8\n"
            "stream PUT 17 127.0.0.1 a stream of parts\n"
            "redirect 200 true /dir/?x=y\n"
            "by hand 301 /dir/\n"
            "gzip 50000 gzip Accept-Encoding 304 0\n"
            "br 50000 br Accept-Encoding 304 0\n"
            "identity 50000  Accept-Encoding 304 0\n"
            "range 206 7 bytes 299993-299999/300000\n"
            "json {\"status\":404,\"title\":\"Not Found\"}\n"
            "connections 1\n"
            "given up AbortError 300000\n")
      << node.err;
}

// What stands in front of servers: nginx, and HAProxy, which asks whether the server lives.
TEST_F(Clients, Proxies) {
  Serve();
  StartNginx();
  const std::string socket = work_.Path("ha");
  const std::string address = Url().substr(std::string("http://").size());
  const std::string configuration = work_.Write(
      "ha.cfg",
      "defaults\n mode http\n timeout connect 20s\n timeout client 50s\n timeout server 50s\n"
      " timeout check 20s\n"
      "frontend f\n bind unix@" +
          socket +
          "\n default_backend b\nbackend b\n"
          " option httpchk\n server s " +
          // On a busy machine three checks in a row may be late, which says nothing of the server.
          address + " check inter 20 fall 1000\n");
  Start({"haproxy", "-db", "-f", configuration}, socket);
  const auto checks = [&] {
    const auto log = served_->Log();
    return std::count_if(log.begin(), log.end(), [](const std::string& line) {
      return line.find("\"OPTIONS /\" --> 204") != std::string::npos;
    });
  };
  EXPECT_TRUE(WaitFor([&] { return checks() > 5; }));
  for (const std::string& through : {work_.Path("proxy"), socket}) {
    SCOPED_TRACE(through);
    const std::vector<std::string> by = {"--unix-socket", through};
    const auto ask = [&](const std::string& path, std::vector<std::string> words,
                         const std::string& input = {}) {
      words.insert(words.end(), by.begin(), by.end());
      return Curl(path, words, {}, input);
    };
    for (int i = 0; i < 5; ++i) EXPECT_EQ(ask("/app.mjs", {}), "export {};|200");
    EXPECT_EQ(ask("/big.bin", {}), big_ + "|200");
    EXPECT_EQ(ask("/big.bin", {"-r", "5-9"}), big_.substr(5, 5) + "|206");
    EXPECT_EQ(ask("/big.bin", {"-I", "-o", "/dev/null"}), "|200");
    EXPECT_EQ(ask("/cgi-bin/echo", {"-T", "-"}, "mine"), "PUT 4 127.0.0.1 mine|200");
    EXPECT_EQ(ask("/dir/", {"-H", "If-None-Match: *"}), "|304");
  }
}

/// A head's fields by lower-case name, without those that say when and by whom.
std::map<std::string, std::string> Fields(const std::string& answer) {
  std::map<std::string, std::string> fields;
  std::istringstream lines(answer.substr(0, answer.find("\r\n\r\n")));
  std::string line;
  std::getline(lines, line);
  fields["status"] = line.substr(9, 3);
  while (std::getline(lines, line)) {
    const std::size_t colon = line.find(": ");
    std::string name = line.substr(0, colon);
    std::transform(name.begin(), name.end(), name.begin(), [](char c) { return std::tolower(c); });
    fields[name] = name == "etag" ? "some" : line.substr(colon + 2, line.find('\r') - colon - 2);
  }
  for (const char* name : {"date", "server", "connection", "x-content-type-options"})
    fields.erase(name);
  return fields;
}

// The same folder behind another server. What differs and why is in docs/http.md.
TEST_F(Clients, AnswersAreThoseOfAnotherServer) {
  Serve({"--type", "html=text/html;x=y"});
  StartNginx();
  struct Case {
    const char* path;
    std::vector<std::string> words;
    std::string differs;  // NAME=OURS|THEIRS; bodies of errors and their lengths are each one's own
  };
  const std::string kNone;
  const std::string ourFile = "etag=some|;last-modified=*|;";
  const std::string theFile = "etag=|some;last-modified=|*;";
  const Case cases[] = {
      {"/app.mjs", {}, "content-type=text/javascript; charset=utf-8|text/javascript;"},
      {"/p%20q.svg", {"-I"}, kNone},
      {"/x/../big.bin", {}, kNone},
      {"/big.bin", {"-0"}, kNone},
      {"/big.bin", {"-r", "0-9"}, "accept-ranges=bytes|;"},
      {"/big.bin", {"-r", "-5"}, "accept-ranges=bytes|;"},
      {"/big.bin", {"-H", "Range: lines=1"}, kNone},
      {"/big.bin", {"-H", "If-None-Match: *"}, kNone},
      {"/big.bin", {"-H", "If-Match: \"x\""}, kNone},
      {"/big.bin", {"-H", "If-Range: \"x\"", "-r", "0-9"}, kNone},
      {"/big.bin", {"-H", "If-Unmodified-Since: Thu, 01 Jan 1970 00:00:00 GMT"}, kNone},
      {"/big.bin",
       {"-H", "If-Modified-Since: Fri, 01 Jan 2100 00:00:00 GMT"},
       "accept-ranges=|bytes;content-length=|300000;content-type=|application/octet-stream;"
       "status=304|200;"},
      {"/big.bin", {"-r", "400000-"}, "accept-ranges=bytes|;etag=some|;last-modified=*|;"},
      {"/dir?x", {}, "location=/dir/?x|http://127.0.0.1/dir/?x;"},
      {"/none", {}, kNone},
      {"/app.mjs/", {}, kNone},
      {"/.hidden", {}, kNone},
      {"/%zz", {}, kNone},
      {"/%00", {}, kNone},
      {"/", {"-H", "Host:"}, kNone},
      {"/", {"-H", "Host: a b"}, kNone},
      {"/big.bin", {"-X", "DELETE"}, "allow=GET, HEAD, POST, OPTIONS|;"},
      {"/big.bin", {"-X", "BREW"}, "status=501|405;"},
      {"/list/.hidden", {}, "accept-ranges=|bytes;" + theFile + "status=404|200;"},
      {"/list/out", {}, "accept-ranges=|bytes;" + theFile + "status=404|200;"},
      {"/list/in", {}, kNone},
      {"/list/", {}, "status=404|403;"},
      {"/dir%2findex.html", {}, "accept-ranges=|bytes;" + theFile + "status=400|200;"},
      {"/../../dir/index.html", {}, "accept-ranges=bytes|;" + ourFile + "status=200|400;"},
      {"/big.bin",
       {"-r", "9-5"},
       "accept-ranges=bytes|;content-range=|bytes */300000;" + ourFile + "status=200|416;"},
      {"/big.bin", {"-r", "0-9", "-I"}, "accept-ranges=bytes|;"},
      {"/app.mjs", {"-d", "x"}, "accept-ranges=bytes|;" + ourFile + "status=200|405;"},
      {"/app.mjs", {"-X", "OPTIONS"}, "allow=GET, HEAD, POST, OPTIONS|;status=204|405;"},
      {"/app.mjs", {"-X", "get"}, "status=501|400;"},
      {"/app.mjs", {"-T", "-"}, "allow=GET, HEAD, POST, OPTIONS|;"},
      {"/app.mjs", {"-H", "Transfer-Encoding: gzip"}, kNone},
      {"/app.mjs", {"-H", "Content-Length: x"}, kNone},
      {"/app.mjs", {"-H", "X-Long: " + std::string(70'000, 'x')}, "status=431|400;"},
      {"/big.bin", {"-H", "If-None-Match: \"x\", W/\"y\""}, kNone},
      {"/long.css",
       {"--compressed", "-H", "Accept-Encoding: gzip"},
       "content-length=some|;content-type=text/css; "
       "charset=utf-8|text/css;transfer-encoding=|chunked;vary=Accept-Encoding|;"},
      {"//big.bin", {}, "accept-ranges=|bytes;etag=|some;last-modified=|*;status=404|200;"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.path) + (c.words.empty() ? "" : " " + c.words.back().substr(0, 40)));
    const auto ask = [&](const std::vector<std::string>& more) {
      std::vector<std::string> words = c.words;
      words.push_back("-i");
      words.insert(words.end(), more.begin(), more.end());
      return Curl(c.path, words);
    };
    const std::string ours = ask({});
    const std::string theirs = ask({"--unix-socket", work_.Path("files")});
    auto left = Fields(ours);
    auto right = Fields(theirs);
    const auto isFile = [](const std::string& status) { return status < "3" || status == "304"; };
    const bool files = isFile(left["status"]) && isFile(right["status"]);
    if (!isFile(left["status"])) {
      // Which page it is depends on what the client takes.
      EXPECT_EQ(left["vary"], "Accept");
      left.erase("vary");
    }
    for (auto* fields : {&left, &right}) {
      if (!files) fields->erase("content-length");
      if (!files) fields->erase("content-type");
      if (fields->contains("content-encoding") && fields->contains("content-length"))
        (*fields)["content-length"] = "some";
    }
    if (files && left["status"] == right["status"]) {
      EXPECT_EQ(ours.substr(ours.find("\r\n\r\n")), theirs.substr(theirs.find("\r\n\r\n")));
    }
    std::string differs;
    for (const auto& [name, value] : left) right.try_emplace(name);
    for (const auto& [name, value] : right) {
      if (left[name] == value) continue;
      const bool date = name == "last-modified";
      differs += name + "=" + (date && !left[name].empty() ? "*" : left[name]) + "|" +
                 (date && !value.empty() ? "*" : value) + ";";
    }
    EXPECT_EQ(differs, c.differs);
  }
}

TEST_F(Clients, TheSiteIsAsItsOptionsSay) {
  const std::string missing = work_.Write("missing.html", "<p>gone");
  folder_.Write("app.html", "the app");
  std::filesystem::remove(folder_.Path("index.html"));
  Serve({"--browse", "--fallback", "app.html", "--header", "X-Frame-Options: DENY", "--header",
         "Vary:  Origin ", "--cache", "60", "--type", "mine=text/x-mine", "--type",
         ".svg=image/other", "--error-page", "404=" + missing, "--log-format", "json"});
  const std::string page = "Accept: text/html,*/*;q=0.8";
  const struct {
    const char* path;
    std::vector<std::string> words;
    std::vector<std::pair<const char*, const char*>> fields;  // all have the added ones, too
  } cases[] = {
      {"/data.mine",
       {},
       {{"status", "200"},
        {"content-type", "text/x-mine; charset=utf-8"},
        {"cache-control", "max-age=60"}}},
      {"/p%20q.svg",
       {"-H", "If-None-Match: *"},
       {{"status", "304"}, {"cache-control", "max-age=60"}}},
      {"/p%20q.svg", {}, {{"content-type", "image/other"}}},
      {"/list", {"-H", page}, {{"status", "301"}, {"cache-control", ""}}},
      {"/route/of/app", {"-H", page}, {{"status", "200"}, {"content-length", "7"}}},
      {"/route.js", {}, {{"status", "404"}, {"content-length", "7"}, {"cache-control", ""}}},
      {"/.hidden", {"-H", page}, {{"status", "404"}}},
      {"/route", {"-H", page, "-d", "x"}, {{"status", "404"}}},
      {"/route",
       {"-H", "Accept: application/json"},
       {{"content-type", "application/problem+json"}}},
      {"/cgi-bin/echo", {}, {{"status", "200"}, {"content-type", "text/plain"}}},
      {"/", {"-H", "Host:"}, {{"status", "400"}}},
      {"/list/", {"-X", "PUT"}, {{"status", "405"}}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.path);
    std::vector<std::string> words = c.words;
    words.push_back("-i");
    const std::string answer = Curl(c.path, words);
    auto fields = Fields(answer);
    for (const auto& [name, value] : c.fields) EXPECT_EQ(fields[name], value) << name;
    EXPECT_EQ(fields["x-frame-options"], "DENY") << answer;
    EXPECT_NE(answer.find("\r\nVary: Origin\r\n"), answer.npos) << answer;
  }
  EXPECT_EQ(Curl("/route.js"), "<p>gone|404");
  EXPECT_EQ(Curl("/route/of/app", {"-H", page}), "the app|200");
  const std::string root = Curl("/");
  EXPECT_NE(root.find("<a href=\"./list/\">"), root.npos) << root;
  const std::string list = Curl("/list/");
  for (const char* shown : {"./%3Ca%3E.txt", "&lt;a&gt;.txt", "./in\"", "\"../\""})
    EXPECT_NE(list.find(shown), list.npos) << shown << list;
  for (const char* hidden : {".hidden", "./out"}) EXPECT_EQ(list.find(hidden), list.npos) << list;
  served_->Stop();
  const RunResult log = RunProgram({"python3", "-c", R"(
import json, sys
lines = [json.loads(line) for line in sys.stdin if not line.startswith("velkoro: ")]
print(*(line["target"] for line in lines if line["status"] == 400 and line["remote"] == "127.0.0.1"), len(lines))
)"},
                                   served_->Program().Output());
  EXPECT_EQ(log.out, "/ 16\n") << log.err;
}

}  // namespace
