// Programs and PHP pages as users see them: real curl, real php-cgi, the program `velkoro serve`.

#include <gtest/gtest.h>

#include <memory>

#include "tests/e2e/served.h"
#include "tests/support/raw_client.h"
#include "tests/support/wait.h"

namespace {

using namespace zrtest;

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
      // Only what is a head counts as one, and the length is ours.
      {"no_head", R"(printf 'page\r\n\r\nHTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n')",
       Answer("page\r\n\r\nHTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n")},
      {"another", R"(printf 'HTTP/1.1 204 No Content\r\n\r\n')",
       Answer("HTTP/1.1 204 No Content\r\n\r\n")},
      {"nul", R"(printf 'A: b\000c\r\n\r\npage')", Answer(std::string("A: b\0c\r\n\r\npage", 14))},
      {"binary", R"(printf 'A: b\r\n\r\n\000\r\n\r\n\000')",
       Answer(std::string("\0\r\n\r\n\0", 6), "A: b\r\n")},
      {"short_length", R"(printf 'Content-Length: 2\r\n\r\npage')", Answer("page")},
      {"long_length", R"(printf 'Content-Length: 4000\r\n\r\npage')", Answer("page")},
      {"odd_length", R"(printf 'content-length : 1\r\n\r\npage')",
       Answer("content-length : 1\r\n\r\npage")},
      {"late_length", R"(printf '\nContent-Length: 1\r\n\r\npage')",
       Answer("\nContent-Length: 1\r\n\r\npage")},
      {"coding", R"(printf 'Transfer-Encoding: chunked\r\n\r\n0\r\n\r\n')", Answer("0\r\n\r\n")},
      {"failure", R"(printf 'A: b\r\n\r\ntext'; exit 3)", Answer("text", "A: b\r\n")},
      {"crash", R"(printf 'A: b\r\n\r\ntext'; kill -SEGV $$)", Answer("text", "A: b\r\n")},
      {"errors", "printf one; printf two >&2", Answer("onetwo")},
      {"grandchild", "sleep 3 & printf text", Answer("text")},
      {"path", R"(cd /; printf '%s' "$SCRIPT_FILENAME $REDIRECT_STATUS $QUERY_STRING")",
       Answer(folder.Path("cgi-bin/path") + " CGI a=1&b=%20")},
  };
  for (const Case& c : cases) folder.WriteProgram(std::string("cgi-bin/") + c.name, c.commands);
  folder.Write("cgi-bin/plain", "#!/bin/sh\necho text\n");
  std::filesystem::create_symlink(outside.Path("program"), folder.Path("cgi-bin/out"));
  folder.Write("page", "second");
  folder.Write("page.php", "<?php echo 'text';");
  const std::string php = outside.Write("php", "");
  std::filesystem::permissions(php, std::filesystem::perms::owner_all);
  Served served(folder, {"http"}, {"--php", php});
  std::filesystem::remove(php);
  for (const Case& c : cases) {
    RawClient client(served.Port("http"));
    client.Send(std::string("GET /cgi-bin/") + c.name + "?a=1&b=%20 HTTP/1.1\r\n\r\n" +
                "GET /page HTTP/1.1\r\nConnection: close\r\n\r\n");
    EXPECT_EQ(client.ReadToEnd(), c.answer + Answer("second")) << c.name;
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

TEST(Cgi, EndOfTheServerEndsItsPrograms) {
  const TemporaryFolder folder;
  const std::string mark =
      "9" + std::to_string(std::filesystem::hash_value(folder.Path()) % 100000);
  folder.WriteProgram("cgi-bin/stubborn",
                      "trap '' TERM; setsid sleep " + mark + " & wait; sleep " + mark);
  Served served(folder, {"http"}, {"--grace", "0"});
  // More than happen at once, so that some wait for their turn.
  std::vector<RawClient> clients;
  for (int i = 0; i < 40; ++i) {
    clients.emplace_back(served.Port("http"));
    clients.back().Send("GET /cgi-bin/stubborn HTTP/1.1\r\n\r\n");
  }
  const auto runs = [&] { return RunProgram({"pgrep", "-f", "--", "sleep " + mark}).status == 0; };
  ASSERT_TRUE(WaitFor(runs));
  const auto asked = std::chrono::steady_clock::now();
  EXPECT_EQ(served.Stop(), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - asked, std::chrono::seconds(2));
  EXPECT_FALSE(runs());
}

TEST(Cgi, FormOfThePhpExampleIsAnswered) {
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

TEST(Cgi, PhpApplicationOfOthersShowsItsFirstPage) {
  const TemporaryFolder folder;
  std::filesystem::copy_file("/usr/share/adminer/adminer.php", folder.Path("index.php"));
  Served served(folder, {"https"});
  const std::string page = served.Curl("https", "/", {"-i"}).out;
  EXPECT_TRUE(page.starts_with("HTTP/1.1 200 OK\r\n")) << page;
  EXPECT_NE(page.find("<title>Login - Adminer</title>"), std::string::npos) << page;
}

}  // namespace
