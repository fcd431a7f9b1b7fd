// `velkoro serve` in standard semantics before clients, proxies and a peer of other makes.

#include <gtest/gtest.h>

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
  /// An nginx that serves the site at one socket and is a proxy before the server at another.
  void StartNginx() {
    std::string text =
        "daemon off; master_process off; pid pid; error_log error;\nevents {}\nhttp {\n"
        "types { text/html html; text/javascript mjs; text/css css; image/svg+xml svg; }\n"
        "gzip on; gzip_min_length 1024; gzip_types text/css;\n"
        "default_type application/octet-stream;\naccess_log off;\n";
    for (const std::string kind : {"client_body", "proxy", "fastcgi", "uwsgi", "scgi"})
      text += kind + "_temp_path t_" + kind + ";\n";
    for (const std::string name : {"files", "proxy"}) {
      text += "server { listen unix:" + work_.Path(name) + "; server_name 127.0.0.1; root " +
              folder_.Path() + "; location / { " +
              (name == "proxy" ? "proxy_pass " + Url() + "; " : "") + "} }\n";
    }
    nginx_ = std::make_unique<BackgroundProgram>(std::vector<std::string>{
        "nginx", "-p", work_.Path(), "-e", "error", "-c", work_.Write("nginx.conf", text + "}\n")});
    ASSERT_TRUE(WaitFor([&] { return !ReadFile(work_.Path("pid")).empty(); })) << nginx_->Errors();
  }

  const std::string big_ = Pattern(300'000);
  const TemporaryFolder folder_;
  const TemporaryFolder work_;
  std::unique_ptr<Served> served_;
  std::unique_ptr<BackgroundProgram> nginx_;
};

TEST_F(Clients, Uploads) {
  Serve({"--log-format", "combined"});
  // curl: uploads of a known and of an unknown length, a download that goes on where it stopped.
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

// What stands in front of servers, and speaks the old version to them.
TEST_F(Clients, Proxies) {
  Serve();
  StartNginx();
  const auto ask = [&](const std::string& path, std::vector<std::string> words,
                       const std::string& input = {}) {
    words.insert(words.end(), {"--unix-socket", work_.Path("proxy")});
    return Curl(path, words, {}, input);
  };
  for (int i = 0; i < 5; ++i) EXPECT_EQ(ask("/app.mjs", {}), "export {};|200");
  EXPECT_EQ(ask("/big.bin", {}), big_ + "|200");
  EXPECT_EQ(ask("/big.bin", {"-r", "5-9"}), big_.substr(5, 5) + "|206");
  EXPECT_EQ(ask("/big.bin", {"-I", "-o", "/dev/null"}), "|200");
  EXPECT_EQ(ask("/cgi-bin/echo", {"-T", "-"}, "mine"), "PUT 4 127.0.0.1 mine|200");
  EXPECT_EQ(ask("/dir/", {"-H", "If-None-Match: *"}), "|304");
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
  const std::string ours = "accept-ranges=bytes|;", theirs = "accept-ranges=|bytes;";
  const std::string version = "etag=some|;last-modified=*|;";
  const std::string ourFile = ours + version;
  const std::string theirFile = theirs + "etag=|some;last-modified=|*;";
  const Case cases[] = {
      {"/app.mjs", {}, "content-type=text/javascript; charset=utf-8|text/javascript;"},
      {"/p%20q.svg", {"-I"}, kNone},
      {"/big.bin", {"-r", "0-9"}, ours},
      {"/big.bin", {"-r", "-5"}, ours},
      {"/big.bin", {"-H", "If-Match: \"x\""}, kNone},
      {"/big.bin", {"-H", "If-Range: \"x\"", "-r", "0-9"}, kNone},
      {"/big.bin",
       {"-H", "If-Modified-Since: Fri, 01 Jan 2100 00:00:00 GMT"},
       "accept-ranges=|bytes;content-length=|300000;content-type=|application/octet-stream;"
       "status=304|200;"},
      {"/big.bin", {"-r", "400000-"}, ourFile},
      {"/dir?x", {}, "location=/dir/?x|http://127.0.0.1/dir/?x;"},
      {"/none", {}, kNone},
      {"/app.mjs/", {}, kNone},
      {"/.hidden", {}, kNone},
      {"/%zz", {}, kNone},
      {"/", {"-H", "Host:"}, kNone},
      {"/big.bin", {"-X", "DELETE"}, "allow=GET, HEAD, POST, OPTIONS|;"},
      {"/big.bin", {"-X", "BREW"}, "status=501|405;"},
      {"/list/.hidden", {}, theirFile + "status=404|200;"},
      {"/list/out", {}, theirFile + "status=404|200;"},
      {"/list/in", {}, kNone},
      {"/list/", {}, "status=404|403;"},
      {"/dir%2findex.html", {}, theirFile + "status=400|200;"},
      {"/../../dir/index.html", {}, ourFile + "status=200|400;"},
      {"/big.bin",
       {"-r", "9-5"},
       ours + "content-range=|bytes */300000;" + version + "status=200|416;"},
      {"/app.mjs", {"-d", "x"}, ourFile + "status=200|405;"},
      {"/app.mjs",
       {"-X", "OPTIONS"},
       "allow=GET, HEAD, POST, PUT, PATCH, DELETE, OPTIONS|;status=204|405;"},
      {"/app.mjs", {"-X", "get"}, "status=501|400;"},
      {"/app.mjs", {"-T", "-"}, "allow=GET, HEAD, POST, OPTIONS|;"},
      {"/app.mjs", {"-H", "X-Long: " + std::string(70'000, 'x')}, "status=431|400;"},
      {"/long.css",
       {"--compressed", "-H", "Accept-Encoding: gzip"},
       "content-length=some|;content-type=text/css; "
       "charset=utf-8|text/css;transfer-encoding=|chunked;vary=Accept-Encoding|;"},
      {"//big.bin", {}, theirFile + "status=404|200;"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.path);
    const auto ask = [&](const std::vector<std::string>& more) {
      std::vector<std::string> words = c.words;
      words.push_back("-i");
      words.insert(words.end(), more.begin(), more.end());
      return Curl(c.path, words);
    };
    const std::string one = ask({});
    const std::string other = ask({"--unix-socket", work_.Path("files")});
    auto left = Fields(one);
    auto right = Fields(other);
    const auto isFile = [](const std::string& status) { return status < "3" || status == "304"; };
    const bool files = isFile(left["status"]) && isFile(right["status"]);
    for (auto* fields : {&left, &right}) {
      if (!files) fields->erase("content-length");
      if (!files) fields->erase("content-type");
      if (fields->contains("content-encoding") && fields->contains("content-length"))
        (*fields)["content-length"] = "some";
    }
    if (files && left["status"] == right["status"]) {
      EXPECT_EQ(one.substr(one.find("\r\n\r\n")), other.substr(other.find("\r\n\r\n")));
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
    std::string expected;  // status, type, "Cache-Control"
  } cases[] = {
      {"/data.mine", {}, "200 text/x-mine; charset=utf-8 max-age=60"},
      {"/p%20q.svg", {"-H", "If-None-Match: *"}, "304  max-age=60"},
      {"/p%20q.svg", {}, "200 image/other max-age=60"},
      {"/list", {"-H", page}, "301 text/html; charset=utf-8 "},
      {"/route/of/app", {"-H", page}, "200 text/html; charset=utf-8 max-age=60"},
      {"/route.js", {}, "404 text/html; charset=utf-8 "},
      {"/.hidden", {"-H", page}, "404 text/html; charset=utf-8 "},
      {"/route", {"-H", page, "-d", "x"}, "404 text/html; charset=utf-8 "},
      {"/route", {"-H", "Accept: application/json"}, "404 application/problem+json "},
      {"/cgi-bin/echo", {}, "200 text/plain "},
      {"/", {"-H", "Host:"}, "400 text/html; charset=utf-8 "},
      {"/list/", {"-X", "PUT"}, "405 text/html; charset=utf-8 "},
  };
  for (const auto& c : cases) {
    const std::string answer =
        Curl(c.path, c.words, " %{content_type} %header{cache-control}|%header{x-frame-options}");
    EXPECT_EQ(answer.substr(answer.find_last_of('|', answer.size() - 6) + 1), c.expected + "|DENY")
        << c.path;
  }
  EXPECT_NE(Curl("/data.mine", {"-i"}).find("\r\nVary: Origin\r\n"), page.npos);
  EXPECT_EQ(Curl("/route.js"), "<p>gone|404");
  EXPECT_EQ(Curl("/route/of/app", {"-H", page}), "the app|200");
  const std::string list = Curl("/list/");
  for (const char* shown : {"./%3Ca%3E.txt", "&lt;a&gt;.txt", "./in\"", "\"../\""})
    EXPECT_NE(list.find(shown), list.npos) << shown << list;
  for (const char* hidden : {".hidden", "./out"}) EXPECT_EQ(list.find(hidden), list.npos) << list;
  served_->Stop();
  const auto log = served_->Log();
  EXPECT_EQ(log.size(), 16u);
  EXPECT_NE(log[10].find(R"("target":"/","protocol":"HTTP/1.1","status":400)"), page.npos)
      << log[10];
}

}  // namespace
