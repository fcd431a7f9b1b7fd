// Programs and PHP pages in standard semantics: real curl, real php-cgi, the program `velkoro
// serve`.

#include <gtest/gtest.h>

#include "tests/e2e/served.h"
#include "tests/support/raw_client.h"
#include "tests/support/wait.h"

namespace {

using namespace zrtest;

class StandardPrograms : public testing::Test {
 protected:
  void Program(const std::string& name, const std::string& commands) {
    folder_.WriteProgram("cgi-bin/" + name, commands);
  }
  std::string Wait(const std::string& file) {
    return "while [ ! -e '" + folder_.Path(file) + "' ]; do sleep 0.01; done";
  }
  /// What came, and the status.
  std::string Asked(const std::string& path, std::vector<std::string> words = {}) {
    words.insert(words.end(), {"-w", "|%{http_code}"});
    return served_.Curl("http", path, words).out;
  }

  TemporaryFolder folder_;
  TemporaryFolder outside_;
  Served served_{folder_, {"http", "https"}, {}, Semantics::kStandard};
};

TEST_F(StandardPrograms, AreAskedWithEveryMethodAndAnswerWhatTheySay) {
  const std::string text = R"(printf 'Content-Type: text/plain\n\n')";
  Program("say", text + R"(; printf '%s' "$REQUEST_METHOD $PATH_INFO "; wc -c | tr -d '\n')");
  Program("none", ":");
  Program("no-head", "echo page; echo more");
  Program("length", R"(printf 'Content-Type: a/b\nContent-Length: 4\n\npage and more')");
  Program("short", R"(printf 'Content-Type: a/b\nContent-Length: 9\n\npage')");
  Program("late", R"(printf 'Content-Type: a/b\nContent-Length: 9\n\npage'; sleep 0.2)");
  Program("status", R"(printf 'Status: 404 Gone\r\n\r\nwhere')");
  Program("unregistered", R"(printf 'Status: 419\r\n\r\nexpired')");
  Program("reset", R"(printf 'Status: 205\r\n\r\nform')");
  Program("away", R"(printf 'Location: http://a.example/\n\n')");
  Program("here", R"(printf 'Location: /cgi-bin/say/there?x\n\n')");
  Program("round", R"(printf 'Location: /cgi-bin/round\n\n')");
  Program("errors", text + "; echo aside >&2; printf page");
  folder_.Write("folder.php/index.html", "");
  folder_.Write("page.php", "<?php echo $_SERVER['SCRIPT_NAME'], ' ', $_SERVER['PATH_INFO'];");
  const std::string big = outside_.Write("big", Pattern(3 << 20));
  struct Case {
    const char* path;
    std::vector<std::string> words;
    const char* answer;
  };
  const Case cases[] = {
      {"say", {}, "GET  0|200"},
      {"say/a%20b/c", {"-X", "DELETE"}, "DELETE /a b/c 0|200"},
      {"say", {"-T", big}, "PUT  3145728|200"},
      {"say", {"-X", "PATCH", "-T", big, "-H", "Transfer-Encoding: chunked"}, "PATCH  3145728|200"},
      {"length", {}, "page|200"},
      {"status", {}, "where|404"},
      {"unregistered", {}, "expired|419"},
      {"reset", {"-H", "Accept-Encoding: gzip"}, "|205"},
      {"away", {}, "|302"},
      {"here", {"-d", "body"}, "GET /there 0|200"},
      {"errors", {}, "page|200"},
      {"../page.php/more", {"--no-path-as-is"}, "/page.php /more|200"},
  };
  for (const Case& c : cases)
    EXPECT_EQ(Asked(std::string("/cgi-bin/") + c.path, c.words), c.answer) << c.path;
  for (const char* bad : {"none", "no-head", "round", "short"})
    EXPECT_TRUE(Asked(std::string("/cgi-bin/") + bad).ends_with("</html>|502")) << bad;
  EXPECT_TRUE(Asked("/cgi-bin/nothing/say").ends_with("|404"));
  EXPECT_TRUE(Asked("/folder.php").ends_with("|301"));
  const std::string head = served_.Curl("http", "/cgi-bin/say", {"-I"}).out;
  EXPECT_TRUE(head.starts_with("HTTP/1.1 200 OK\r\n") && head.ends_with("\r\n\r\n")) << head;
  // The head of one that says how long it is: others are framed by how soon they end.
  const auto fieldsOf = [&](const char* word) {
    const std::string all = served_.Curl("http", "/cgi-bin/length", {word}).out;
    const std::size_t begin = all.find("\r\nServer");  // behind the date
    return all.substr(begin, all.find("\r\n\r\n") - begin);
  };
  EXPECT_EQ(fieldsOf("-I"), fieldsOf("-i"));
  EXPECT_EQ(served_.Curl("http", "/cgi-bin/late").status, 18);
}

TEST_F(StandardPrograms, AnswersArriveAsTheyAreWrittenAndNeverEndFalsely) {
  const std::string events = R"(printf 'Content-Type: text/event-stream\n\n'; )";
  Program("events", events + "echo one; " + Wait("go") + "; echo two");
  Program("crash", events + "echo one; sleep 0.05; kill -9 $$");
  Program("echo", R"(printf 'Content-Type: a/b\n\n'; cat)");
  for (const char* protocol : {"http", "https"}) {
    BackgroundProgram curl(CurlWords({"-N", served_.Url(protocol, "/cgi-bin/events")}));
    EXPECT_TRUE(WaitFor([&] { return curl.Output() == "one\n"; })) << curl.Errors();
    folder_.Write("go", "");
    EXPECT_TRUE(curl.WaitForEnd());
    EXPECT_EQ(curl.Output(), "one\ntwo\n");
    std::filesystem::remove(folder_.Path("go"));
    const std::string sent = Pattern(9 << 20);
    const RunResult echo = served_.Curl(protocol, "/cgi-bin/echo",
                                        {"--data-binary", "@" + outside_.Write("body", sent)});
    EXPECT_TRUE(echo.out == sent) << echo.err;
    for (const char* version : {"--http1.1", "--http1.0"}) {
      const RunResult cut = served_.Curl(protocol, "/cgi-bin/crash", {"-N", version});
      EXPECT_EQ(cut.out, "one\n");
      EXPECT_NE(cut.status, 0) << protocol << version;
    }
  }
}

TEST_F(StandardPrograms, EndWithTheirPeerAndLeaveOthersTheirTurn) {
  const std::string mark =
      "7" + std::to_string(std::filesystem::hash_value(folder_.Path()) % 100000);
  const std::string events = R"(printf 'Content-Type: text/event-stream\n\n'; echo one; )";
  Program("endless", events + "sleep " + mark);
  Program("silent", "sleep " + mark);
  Program("half", events + Wait("go") + "; echo two");
  Program("quick", R"(printf 'Content-Type: a/b\n\nquick')");
  const auto runs = [&] { return RunProgram({"pgrep", "-f", "--", "sleep " + mark}).status == 0; };
  const std::string ask = " HTTP/1.1\r\nHost: h\r\n\r\n";
  RawClient half(served_.Port("http"));
  half.Send("GET /cgi-bin/half" + ask);
  half.FinishSending();
  half.ReadUntil("one\n");
  folder_.Write("go", "");
  bool ended = false;
  const std::string answer = half.ReadToEnd(&ended);
  EXPECT_TRUE(ended);
  EXPECT_TRUE(answer.ends_with("4\r\ntwo\n\r\n0\r\n\r\n")) << answer;
  // More than programs happen at once: those that last stand aside, silent or not.
  std::vector<RawClient> clients;
  for (int i = 0; i < 40; ++i) {
    clients.emplace_back(served_.Port("http"));
    clients.back().Send(std::string("GET /cgi-bin/") + (i % 2 == 0 ? "endless" : "silent") + ask);
  }
  EXPECT_EQ(Asked("/cgi-bin/quick"), "quick|200");
  for (std::size_t i = 0; i < clients.size(); i += 2)
    EXPECT_NE(clients[i].ReadUntil("one\n").find("one\n"), ask.npos);
  EXPECT_TRUE(runs());
  for (RawClient& client : clients) client.Reset();
  EXPECT_TRUE(WaitFor([&] { return !runs(); }));
}

TEST_F(StandardPrograms, TheirInputArrivesAsItIsSent) {
  const std::string text = R"(printf 'Content-Type: text/event-stream\n\n'; )";
  Program("lines", text + R"(while read -r line; do echo "$CONTENT_LENGTH $line"; done)");
  Program("unread", text + "exec <&-; printf unread");
  Program("whole",
          text + R"(touch ')" + folder_.Path("runs") + "'; cat; rm '" + folder_.Path("runs") + "'");
  const auto ask = [](const std::string& name, std::size_t length) {
    return "POST /cgi-bin/" + name +
           " HTTP/1.1\r\nHost: h\r\nContent-Length: " + std::to_string(length) + "\r\n\r\n";
  };
  RawClient client(served_.Port("http"));
  client.Send(ask("lines", 8) + "one\n");
  EXPECT_NE(client.ReadUntil("8 one\n").find("8 one\n"), std::string::npos);
  client.Send("two\n");
  EXPECT_NE(client.ReadUntil("0\r\n\r\n").find("8 two\n"), std::string::npos);
  // What a program leaves unread, or nobody reads, is no request, wherever the answer came.
  std::string others;
  while (others.size() < 600'000) others += "GET /absent HTTP/1.1\r\nHost: h\r\n\r\n";
  for (const char* name : {"unread", "nothing"}) {
    client.Send(ask(name, 2 * others.size()) + others);
    client.ReadUntil(name == std::string("unread") ? "0\r\n\r\n" : "</html>");
    client.Send(others + ask("lines", 4) + "end\n");
    const std::string answer = client.ReadUntil("0\r\n\r\n");
    EXPECT_TRUE(answer.starts_with("HTTP/1.1 200 OK") && answer.find("4 end") != answer.npos)
        << answer;
  }
  // Whoever goes in the middle ends the program.
  for (const bool resets : {false, true}) {
    RawClient leaving(served_.Port("http"));
    leaving.Send(ask("whole", 9) + "body");
    EXPECT_TRUE(WaitFor([&] { return std::filesystem::exists(folder_.Path("runs")); }));
    if (resets) {
      leaving.Reset();
    } else {
      leaving.FinishSending();
      bool ended = false;
      leaving.ReadToEnd(&ended);
      EXPECT_TRUE(ended);
    }
    EXPECT_TRUE(WaitFor([&] {
      return RunProgram({"pgrep", "-f", "--", folder_.Path("cgi-bin/whole")}).status != 0;
    }));
    EXPECT_TRUE(std::filesystem::remove(folder_.Path("runs")));  // it did not come to its end
  }
  // While a program does not read, nobody takes its input from the client.
  Program("stands", text + Wait("go"));
  Program("back", text + "cat");
  const std::string sent = Pattern(40 << 20);
  const std::string file = outside_.Write("big", sent);
  for (const char* protocol : {"http", "https"}) {
    const RunResult held =
        served_.Curl(protocol, "/cgi-bin/stands",
                     {"-T", file, "-m", "2", "-o", "/dev/null", "-w", "%{size_upload}"});
    EXPECT_EQ(held.status, 28);
    EXPECT_LT(std::stoul(held.out), sent.size() / 2) << protocol;
    EXPECT_TRUE(served_.Curl(protocol, "/cgi-bin/back", {"-T", file}).out == sent) << protocol;
  }
  // Nobody can tell that those clients have gone, as their end stands behind what is not taken.
  EXPECT_EQ(served_.Stop(), 0);
  EXPECT_EQ(RunProgram({"pgrep", "-f", "--", folder_.Path("cgi-bin/")}).status, 1);
}

// An application of others: logs in, is redirected, takes a file of commands, gives a table back.
TEST_F(StandardPrograms, PhpApplicationWorksBeyondItsFirstPage) {
  // It counts failed log-ins by peer for half an hour in the temporary folder.
  folder_.Write("index.php", R"(<?php
putenv('TMPDIR=)" + outside_.Path() +
                                 R"(');
ini_set('session.save_path', getenv('TMPDIR'));
function adminer_object() {
  class Mine extends Adminer {
    function bruteForceKey() { return __DIR__; }
    function login($user, $password) { return $password == 'open sesame'; }
    function credentials() { return array(SERVER, $_GET['username'], ''); }
  }
  return new Mine;
}
include '/usr/share/adminer/adminer.php';
)");
  const std::string base = outside_.Write("base", "");
  const std::string jar = outside_.Path("jar");
  const auto visit = [&](const std::string& page, std::vector<std::string> words) {
    words.insert(words.end(), {"-b", jar, "-c", jar, "-L", "-w", "|%{num_redirects} %{http_code}"});
    return served_.Curl("https", "/" + page, words).out;
  };
  const auto logIn = [&](const std::string& password) {
    return visit("", {"-d", "auth[driver]=sqlite&auth[server]=&auth[username]=Ada&auth[password]=" +
                                password + "&auth[db]=" + base});
  };
  const std::string wrong = logIn("sesame");
  EXPECT_NE(wrong.find("Invalid credentials."), wrong.npos) << wrong;
  EXPECT_TRUE(wrong.ends_with("|1 403")) << wrong;
  const std::string inside = logIn("open+sesame");
  EXPECT_NE(inside.find("No tables."), inside.npos) << inside;
  EXPECT_TRUE(inside.ends_with("|1 200")) << inside;

  const std::string site = "?sqlite=&username=Ada&db=" + base;
  const auto post = [&](const std::string& page, std::vector<std::string> words) {
    const std::string form = visit(site + page, {});
    const std::size_t token = form.find("name=\"token\" value=\"");
    EXPECT_NE(token, form.npos) << form;
    const std::size_t begin = token == form.npos ? 0 : token + 20;
    words.insert(words.end(), {"-F", "token=" + form.substr(begin, form.find('"', begin) - begin)});
    return visit(site + page, words);
  };
  std::string text = "J\xC3\xBCrgen & <Co>";
  while (text.size() < 1'500'000) text += ' ' + std::to_string(text.size());
  const std::string commands =
      outside_.Write("commands", "CREATE TABLE t (a TEXT); INSERT INTO t VALUES ('" + text + "');");
  const std::string imported = post("&import=", {"-F", "sql_file[]=@" + commands});
  EXPECT_TRUE(imported.ends_with("|0 200")) << imported.substr(0, 2000);
  const std::string table =
      post("&dump=", {"-F", "output=file", "-F", "format=csv", "-F", "data_style=INSERT", "-F",
                      "tables[]=t", "-F", "data[]=t"});
  EXPECT_TRUE(table == "\xEF\xBB\xBF" + text + "\r\n|0 200") << table.substr(0, 200);
}

}  // namespace
