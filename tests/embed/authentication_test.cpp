// Who may see what: conditions that stand before routes and files.

#include <gtest/gtest.h>

#include "tests/embed/asked_server.h"

namespace {

using namespace zrtest;
using velkoro::Answer;
using velkoro::Request;

TEST(Authentication, GuardsStandBeforeRoutesAndFiles) {
  const TemporaryFolder folder;
  folder.Write("admin/file", "secret");
  folder.Write("administration", "open");
  folder.WriteProgram("cgi-bin/who",
                      R"(printf 'Content-Type: a/b\n\n'; printf "$AUTH_TYPE $REMOTE_USER")");
  velkoro::Server server(AnyPort(folder.Path()));
  for (const char* path : {"/admin/route", "/api"})
    server.Handle("GET", path,
                  [](const Request& request, Answer& answer) { answer.Text(request.User()); });
  server.Handle("GET", "/stop", [](const Request&, Answer&) { FAIL() << "asked"; });
  server.Before([](const Request& request, Answer& answer) {
    if (request.Path() == "/stop") answer.Text("stopped");
    return request.Path() != "/stop";
  });
  for (const char* path : {"/admin/", "/cgi-bin/"})
    server.Before(path, velkoro::BasicAuthentication("the \"inside\"", {{"ada", "s:1"}, {"", ""}}));
  server.Before("/api", velkoro::BearerAuthentication("api", {{"t0ken", "eve"}}));
  server.Start();
  const std::tuple<const char*, std::vector<std::string>, std::string> cases[] = {
      {"/admin/file", {}, "[401]"},
      {"/admin", {}, "[401]"},
      {"/admin/none", {"-X", "DELETE"}, "[401]"},
      {"/administration", {}, "open[200]"},
      {"/admin/file", {"-u", "ada:s:1"}, "secret[200]"},
      {"/admin/file", {"-u", "ada:s:"}, "[401]"},
      {"/admin/file", {"-H", "Authorization: Basic %%%"}, "[401]"},
      {"/admin/file", {"-H", "Authorization: Basic YWRh"}, "[401]"},
      {"/admin/route", {"-u", "ada:s:1"}, "ada[200]"},
      {"/admin/route", {"-u", "ada:s:1", "-X", "POST"}, "[405]"},
      {"/cgi-bin/who", {"-u", "ada:s:1"}, "Basic ada[200]"},
      {"/api", {"-H", "Authorization: bearer t0ken"}, "eve[200]"},
      {"/api", {"-H", "Authorization: bearer t0ke"}, "[401]"},
      {"/stop", {}, "stopped[200]"},
  };
  for (const auto& [path, options, expected] : cases) {
    const std::string answer = Ask(server, path, options);
    EXPECT_TRUE(answer.ends_with(expected)) << path << answer;
    EXPECT_EQ(answer.find("secret") == answer.npos, expected != "secret[200]") << path;
  }
  const std::string head = Ask(server, "/admin", {"-I"});
  EXPECT_NE(head.find("Www-Authenticate: Basic realm=\"the \\\"inside\\\"\""), head.npos) << head;
}

}  // namespace
