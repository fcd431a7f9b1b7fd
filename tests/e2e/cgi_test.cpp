// Programs and PHP pages as users see them: real curl, real php-cgi, the program `velkoro serve`.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <memory>

#include "tests/e2e/served.h"
#include "tests/support/raw_client.h"
#include "tests/support/wait.h"

namespace {

using namespace zrtest;

void WriteProgram(const TemporaryFolder& folder, const std::string& name,
                  const std::string& commands) {
  const std::string path = folder.Write("cgi-bin/" + name, "#!/bin/sh\n" + commands + "\n");
  ASSERT_EQ(::chmod(path.c_str(), 0755), 0);
}

/// Whether any process has this text in its command line.
bool Runs(const std::string& text) { return RunProgram({"pgrep", "-f", "--", text}).status == 0; }

TEST(Cgi, OutputOfProgramsIsTheAnswer) {
  const TemporaryFolder outside;
  outside.Write("program", "#!/bin/sh\necho outside\n");
  const TemporaryFolder folder;
  struct Case {
    const char* name;
    const char* commands;
    std::string answer;
  };
  const Case cases[] = {
      {"crlf", R"(printf 'Content-Type: text/x\r\nX-A: 1\r\n\r\n<p>page\r\n\r\n')",
       Answer("<p>page\r\n\r\n", "Content-Type: text/x\r\nX-A: 1\r\n")},
      {"line_feeds", R"(printf 'Content-Type: text/x\n\npage')",
       Answer("Content-Type: text/x\n\npage")},
      {"status", R"(printf 'Status: 404 Gone\r\n\r\n')", Answer("", "Status: 404 Gone\r\n")},
      {"nothing", ":", Answer("")},
      {"failure", R"(printf 'A: b\r\n\r\ntext'; exit 3)", Answer("text", "A: b\r\n")},
      {"crash", R"(printf 'A: b\r\n\r\ntext'; kill -SEGV $$)", Answer("text", "A: b\r\n")},
      {"errors", "printf one; printf two >&2", Answer("onetwo")},
      {"grandchild", "sleep 3 & printf text", Answer("text")},
      {"path", R"(cd /; printf '%s' "$SCRIPT_FILENAME $REDIRECT_STATUS $QUERY_STRING")",
       Answer(folder.Path("cgi-bin/path") + " CGI a=1&b=%20")},
  };
  for (const Case& c : cases) WriteProgram(folder, c.name, c.commands);
  folder.Write("cgi-bin/plain", "#!/bin/sh\necho text\n");
  std::filesystem::create_symlink(outside.Path("program"), folder.Path("cgi-bin/out"));
  folder.Write("page.php", "<?php echo 'text';");
  const std::string php = outside.Write("php", "");
  std::filesystem::permissions(php, std::filesystem::perms::owner_all);
  Served served(folder, {"http"}, {"--php", php});
  std::filesystem::remove(php);
  for (const Case& c : cases) {
    const RunResult got =
        served.Curl("http", std::string("/cgi-bin/") + c.name + "?a=1&b=%20", {"-i"});
    EXPECT_EQ(got.out, c.answer) << c.name << got.err;
  }
  // What cannot be run, for want of a permission or of an interpreter.
  for (const char* dead : {"/cgi-bin/plain", "/page.php"}) {
    EXPECT_EQ(served.Curl("http", dead, {"-i"}).out, Answer("")) << dead;
  }
  EXPECT_TRUE(WaitFor([&] {
    return served.Program().Output().find("Error on CreateProcess\n") != std::string::npos;
  }));
  for (const char* missing : {"/cgi-bin/none", "/cgi-bin/out", "/none.php"}) {
    const std::string answer = served.Curl("http", missing, {"-i"}).out;
    EXPECT_TRUE(answer.starts_with("HTTP/1.1 404 Not Found\r\n")) << missing << answer;
  }
  EXPECT_EQ(served.Stop(), 0);
}

/// What stands in front of the answer to the second of two requests, head and body, when both are
/// what the first one's head announces; else what is wrong.
std::string FirstAnswer(const std::string& answers, const std::string& second) {
  const std::size_t end = answers.find("\r\n\r\n");
  if (end == std::string::npos) return "no head: " + answers;
  // As a strict reader has it: lines end with CR LF, one length, no coding of its own.
  std::size_t length = std::string::npos;
  for (std::size_t at = 0; at < end + 2;) {
    const std::size_t next = answers.find("\r\n", at);
    std::string line = answers.substr(at, next - at);
    at = next + 2;
    if (line.find_first_of(std::string_view("\r\n\0", 3)) != std::string::npos)
      return "line: " + line;
    std::transform(line.begin(), line.end(), line.begin(), [](char c) {
      return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    });
    if (line.starts_with("transfer-encoding")) return line;
    if (!line.starts_with("content-length:")) continue;
    const std::size_t announced = std::stoul(line.substr(15));
    if (length != std::string::npos && length != announced) return "another " + line;
    length = announced;
  }
  if (length == std::string::npos) return "no length: " + answers;
  const std::string rest = answers.substr(std::min(answers.size(), end + 4 + length));
  return rest == second ? answers.substr(end + 4, length) : "behind it: " + rest;
}

TEST(Cgi, WhateverAProgramWritesTheAnswerHasTheLengthItAnnounces) {
  const TemporaryFolder folder;
  struct Case {
    const char* output;  // for printf
    std::string page;
  };
  const std::string lineFeeds = "Content-Type: text/x\nA: b\n\npage\r\n\r\nrest";
  const Case cases[] = {
      {R"(Content-Type: text/x\nA: b\n\npage\r\n\r\nrest)", lineFeeds},
      {R"(A: b\n\npage)", "A: b\n\npage"},
      {R"(A: b\r\nC: d\n\r\n\r\npage)", "A: b\r\nC: d\n\r\n\r\npage"},
      {R"(A: b\n\r\n\r\npage)", "A: b\n\r\n\r\npage"},
      {"page", "page"},
      {R"(page\r\n\r\nHTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n)",
       "page\r\n\r\nHTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n"},
      {R"(A: b\r\n\r\n)", ""},
      {R"(A: b\r\n)", "A: b\r\n"},
      {R"(\r\n\r\npage)", "\r\npage"},
      {R"(A: b\000c\r\n\r\npage)", std::string("A: b\0c\r\n\r\npage", 14)},
      {R"(A: b\r\n\r\n\000\001\r\n\r\n\000)", std::string("\0\1\r\n\r\n\0", 7)},
      {R"(Content-Length: 2\r\n\r\npage)", "page"},
      {R"(Content-Length: 4000\r\n\r\npage)", "page"},
      {R"(Content-Length: 4\r\nA: b\r\n\r\npage)", "page"},
      {R"(content-length : 1\r\n\r\npage)", "content-length : 1\r\n\r\npage"},
      {R"(Transfer-Encoding: chunked\r\n\r\n0\r\n\r\n)", "0\r\n\r\n"},
      {R"(A: b\r\n folded\r\n\r\npage)", "A: b\r\n folded\r\n\r\npage"},
      {R"(HTTP/1.1 204 No Content\r\n\r\n)", "HTTP/1.1 204 No Content\r\n\r\n"},
      {R"(\nContent-Length: 1\r\n\r\npage)", "\nContent-Length: 1\r\n\r\npage"},
  };
  folder.Write("page", "second");
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    WriteProgram(folder, std::to_string(i), std::string("printf '") + cases[i].output + "'");
  }
  Served served(folder, {"http"});
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    SCOPED_TRACE(cases[i].output);
    RawClient client(served.Port("http"));
    client.Send("GET /cgi-bin/" + std::to_string(i) +
                " HTTP/1.1\r\n\r\nGET /page HTTP/1.1\r\nConnection: close\r\n\r\n");
    const std::string first = FirstAnswer(client.ReadToEnd(), Answer("second"));
    EXPECT_EQ(first, cases[i].page);
  }
}

/// A folder with a copy of one of the examples.
std::unique_ptr<TemporaryFolder> CopyOf(const char* example) {
  auto folder = std::make_unique<TemporaryFolder>();
  std::filesystem::copy(example, folder->Path(), std::filesystem::copy_options::recursive);
  return folder;
}

TEST(Cgi, BodiesOfEverySizePassThroughTheExamples) {
  const auto site = CopyOf(ZR_EXAMPLE_SITE);
  const TemporaryFolder bodies;
  Served served(*site, {"https", "http"});
  for (const std::size_t size : {0U, 5U, 65536U, 65537U, 10U << 20}) {
    const std::string sent = Pattern(size);
    const std::string file = bodies.Write("body", sent);
    for (const char* protocol : {"https", "http"}) {
      const RunResult got =
          served.Curl(protocol, "/cgi-bin/echo", {"--data-binary", "@" + file, "-H", "Expect:"});
      EXPECT_TRUE(got.out == sent) << protocol << size << got.err;
    }
  }
  const std::string hello = served.Curl("https", "/cgi-bin/hello.sh?a=b").out;
  EXPECT_NE(hello.find("Method: GET\nQuery: a=b\n"), std::string::npos) << hello;
}

TEST(Cgi, RunsAtTheSameTimeSeeOnlyTheirOwnVariables) {
  const TemporaryFolder folder;
  // Both are in the program before either writes.
  WriteProgram(
      folder, "meet",
      "touch \"$(dirname \"$SCRIPT_FILENAME\")/../$QUERY_STRING\"\n"
      "while [ ! -e \"$(dirname \"$SCRIPT_FILENAME\")/../$HTTP_X_OTHER\" ]; do sleep 0.01; done\n"
      "printf 'A: b\\r\\n\\r\\n'; env | grep -e ^HTTP_X_ -e ^QUERY | sort");
  Served served(folder, {"http"});
  const auto start = [&](const std::string& own, const std::string& other) {
    return std::make_unique<BackgroundProgram>(
        CurlWords({"-H", "X-Other: " + other, "-H", "X-" + own + ": 1", "-H", "Proxy: evil",
                   served.Url("http", "/cgi-bin/meet?" + own)}));
  };
  const auto first = start("one", "two");
  const auto second = start("two", "one");
  EXPECT_TRUE(first->WaitForEnd() && second->WaitForEnd());
  EXPECT_EQ(first->Output(), "HTTP_X_ONE=1\nHTTP_X_OTHER=two\nQUERY_STRING=one\n");
  EXPECT_EQ(second->Output(), "HTTP_X_OTHER=one\nHTTP_X_TWO=1\nQUERY_STRING=two\n");
}

TEST(Cgi, RunHoldsUpItsOwnConnectionOnly) {
  const TemporaryFolder folder;
  folder.Write("page", "page");
  WriteProgram(folder, "wait",
               "while [ ! -e \"$(dirname \"$SCRIPT_FILENAME\")/../go\" ]; do sleep 0.01; done\n"
               "printf 'A: b\\r\\n\\r\\nwaited'");
  Served served(folder, {"http"});
  RawClient waiting(served.Port("http"));
  // The second request and the wish to close come while the program runs.
  waiting.Send("GET /cgi-bin/wait HTTP/1.1\r\n\r\nGET /page HTTP/1.1\r\nConnection: close\r\n\r\n");
  RawClient closing(served.Port("http"));
  closing.Send("GET /cgi-bin/wait HTTP/1.1\r\nConnection: close\r\n\r\n");
  for (int i = 0; i < 20; ++i) EXPECT_EQ(served.Curl("http", "/page").out, "page");
  folder.Write("go", "");
  bool ended = false;
  EXPECT_EQ(waiting.ReadToEnd(&ended), Answer("waited", "A: b\r\n") + Answer("page"));
  EXPECT_TRUE(ended);
  EXPECT_EQ(closing.ReadToEnd(&ended), Answer("waited", "A: b\r\n"));
  EXPECT_TRUE(ended);
}

TEST(Cgi, ProgramsOfPeersThatHaveGoneAreEnded) {
  const TemporaryFolder folder;
  const std::string mark =
      "8" + std::to_string(std::filesystem::hash_value(folder.Path()) % 100000);
  WriteProgram(folder, "slow", "sleep " + mark);
  WriteProgram(folder, "quick", "cat");
  WriteProgram(folder, "wait",
               "while [ ! -e \"$SCRIPT_FILENAME.go\" ]; do sleep 0.01; done; echo waited");
  Served served(folder, {"http"});
  const auto descriptors = [&] {
    return std::distance(std::filesystem::directory_iterator(
                             "/proc/" + std::to_string(served.Program().Id()) + "/fd"),
                         {});
  };
  EXPECT_EQ(served.Curl("http", "/cgi-bin/quick", {"-d", "text"}).out, "text");
  const auto before = descriptors();
  // One ends its side only, in front of all the others in the queue.
  RawClient halfClosed(served.Port("http"));
  halfClosed.Send("GET /cgi-bin/wait HTTP/1.1\r\n\r\n");
  halfClosed.FinishSending();
  const std::string post =
      "POST /cgi-bin/slow HTTP/1.1\r\nContent-Length: 100000\r\n\r\n" + Pattern(100000);
  std::vector<RawClient> clients;
  for (int i = 0; i < 400; ++i) {
    RawClient& client = clients.emplace_back(served.Port("http"));
    EXPECT_TRUE(client.Send(post));
    if (i % 4 == 1) client.FinishSending();  // and resets later
    if (i % 4 == 2) client.Reset();
  }
  // Some run, the others wait.
  ASSERT_TRUE(WaitFor([&] { return Runs("sleep " + mark); }));
  for (RawClient& client : clients) client.Reset();
  // Only the wait of the half-closed one is left.
  EXPECT_TRUE(WaitFor([&] { return !Runs("sleep " + mark) && descriptors() <= before + 6; }));
  EXPECT_EQ(served.Curl("http", "/cgi-bin/quick", {"-d", "text"}).out, "text");
  folder.Write("cgi-bin/wait.go", "");
  bool ended = false;
  EXPECT_EQ(halfClosed.ReadToEnd(&ended), Answer("waited\n"));
  EXPECT_TRUE(ended);
  EXPECT_TRUE(WaitFor([&] { return descriptors() <= before; }));
}

TEST(Cgi, EndOfTheServerEndsItsPrograms) {
  const TemporaryFolder folder;
  const std::string mark =
      "9" + std::to_string(std::filesystem::hash_value(folder.Path()) % 100000);
  WriteProgram(folder, "stubborn", "trap '' TERM; setsid sleep " + mark + " & wait; sleep " + mark);
  Served served(folder, {"http"}, {"--grace", "0"});
  // More than happen at once, so that some wait for their turn.
  std::vector<RawClient> clients;
  for (int i = 0; i < 40; ++i) {
    clients.emplace_back(served.Port("http"));
    clients.back().Send("GET /cgi-bin/stubborn HTTP/1.1\r\n\r\n");
  }
  ASSERT_TRUE(WaitFor([&] { return Runs("sleep " + mark); }));
  const auto asked = std::chrono::steady_clock::now();
  EXPECT_EQ(served.Stop(), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - asked, std::chrono::seconds(2));
  EXPECT_FALSE(Runs("sleep " + mark));
}

TEST(Php, FormOfTheExampleIsAnswered) {
  const auto site = CopyOf(ZR_PHP_EXAMPLE);
  const TemporaryFolder uploads;
  const std::string file = uploads.Write("photo.bin", Pattern(200000));
  const std::string md5 = RunProgram({"md5sum", file}).out.substr(0, 32);
  Served served(*site, {"https"});  // the interpreter is found on PATH

  const std::string form = served.Curl("https", "/", {"-i"}).out;
  EXPECT_TRUE(form.starts_with("HTTP/1.1 200 OK\r\n")) << form;
  EXPECT_NE(form.find("\r\nContent-type: text/html; charset=UTF-8\r\n"), std::string::npos);
  EXPECT_NE(form.find("<form method=\"post\""), std::string::npos) << form;

  const std::string encoded =
      served.Curl("https", "/index.php", {"--data-urlencode", "name=J\xC3\xBCrgen & <Co>"}).out;
  EXPECT_NE(encoded.find("Hello, J\xC3\xBCrgen &amp; &lt;Co&gt;!"), std::string::npos) << encoded;

  const std::string multipart =
      served.Curl("https", "/", {"-F", "name=Ada", "-F", "file=@" + file}).out;
  EXPECT_NE(multipart.find("Hello, Ada!"), std::string::npos) << multipart;
  EXPECT_NE(multipart.find("photo.bin: 200000 bytes,\nmd5 " + md5), std::string::npos) << multipart;
}

TEST(Php, ApplicationOfOthersShowsItsFirstPage) {
  const TemporaryFolder folder;
  std::filesystem::copy_file("/usr/share/adminer/adminer.php", folder.Path("index.php"));
  Served served(folder, {"https"});
  const std::string page = served.Curl("https", "/", {"-i"}).out;
  EXPECT_TRUE(page.starts_with("HTTP/1.1 200 OK\r\n")) << page;
  EXPECT_NE(page.find("<title>Login - Adminer</title>"), std::string::npos) << page;
}

}  // namespace
