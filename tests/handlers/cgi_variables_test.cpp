#include "handlers/cgi_variables.h"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include "http/message_head.h"

namespace {

using std::string_view_literals::operator""sv;

using Fields = std::vector<std::pair<std::string_view, std::string_view>>;

using Lines = std::vector<std::string>;

/// "NAME=value" each, sorted.
Lines LinesOf(const ZrCgiVariables& variables) {
  Lines lines;
  for (const auto& [name, value] : variables) lines.push_back(name + "=" + value);
  return lines;
}

/// The variables of a request; empty when it is refused.
Lines Variables(ZrMessageType type, const Fields& fields) {
  const auto request = zr::MakeJob<ZrXHeader>(type, zr::kProtocolHttp);
  request->query = "a=1&b=%20";
  for (const auto& [name, value] : fields) request->headers.Append(name, value);
  ZrCgiVariables variables;
  const bool taken = zr::BuildCgiVariables(*request, variables);
  EXPECT_EQ(taken, !variables.empty());
  return LinesOf(variables);
}

TEST(CgiVariables, MethodsHaveTheirOwn) {
  EXPECT_EQ(Variables(ZrMessageType::kGet, {{":first:", "GET"}, {"content-length", "3"}}),
            (Lines{"HTTP_CONTENT_LENGTH=3", "QUERY_STRING=a=1&b=%20", "REQUEST_METHOD=GET"}));
  EXPECT_EQ(
      Variables(ZrMessageType::kPost, {{"content-type", "m/f;b=X\r\n"}, {"content-length", "12"}}),
      (Lines{"CONTENT_LENGTH=12", "CONTENT_TYPE=m/f;b=X", "HTTP_CONTENT_LENGTH=12",
             "HTTP_CONTENT_TYPE=m/f;b=X\r\n", "REQUEST_METHOD=POST"}));
  EXPECT_EQ(Variables(ZrMessageType::kPost, {}),
            (Lines{"CONTENT_TYPE=application/x-www-form-urlencoded", "REQUEST_METHOD=POST"}));
  EXPECT_EQ(Variables(ZrMessageType::kNone, {{"a", "b"}}), Lines{});
  EXPECT_EQ(Variables(ZrMessageType::kAnswer, {{"a", "b"}}), Lines{});
}

TEST(CgiVariables, OnlyHarmlessFieldsBecomeVariables) {
  struct Case {
    const char* name;
    Fields fields;
    Lines variables;
  };
  const Case cases[] = {
      {"first value", {{"x-2", "one"}, {"x-2", "two"}}, {"HTTP_X_2=one"}},
      {"never a proxy", {{"proxy", "http://evil"}, {"proxy-x", "\xff"}}, {"HTTP_PROXY_X=\xff"}},
      {"plain names",
       {{"a.b", "1"}, {"a=b", "1"}, {"a\0b"sv, "1"}, {"\xe9", "1"}, {"()_{", "1"}},
       {}},
      {"the dash wins",
       {{"a_b", "forged"}, {"a-b", "real"}, {"c_d-e", "forged"}, {"c-d_e", "real"}},
       {"HTTP_A_B=real", "HTTP_C_D_E=real"}},
      {"no NUL byte", {{"x", "a\0b"sv}, {"content-type", "\0"sv}}, {}},
  };
  for (const Case& c : cases) {
    Lines expected = c.variables;
    expected.insert(expected.end(), {"QUERY_STRING=a=1&b=%20", "REQUEST_METHOD=GET"});
    EXPECT_EQ(Variables(ZrMessageType::kGet, c.fields), expected) << c.name;
  }
  EXPECT_EQ(Variables(ZrMessageType::kPost, {{"content-type", "a\0b"sv}}),
            Lines{"REQUEST_METHOD=POST"});
}

TEST(CgiVariables, StandardSemanticsGiveEveryMetaVariable) {
  const std::pair<const char*, const char*> sent[] = {{":first:", "POST"},
                                                      {"authorization", "Basic dTpw"},
                                                      {"content-type", "text/x; a=b"},
                                                      {"cookie", "a=1"},
                                                      {"cookie", "b=2"},
                                                      {"accept", "a/b"},
                                                      {"accept", "c/d"},
                                                      {"host", "example.org:8080"},
                                                      {"proxy", "evil"}};
  ZrHeaderFields fields;
  for (const auto& [name, value] : sent) fields.Append(name, value);
  zr::ProgramRequest request{.method = "POST",
                             .protocol = "HTTP/1.1",
                             .target = "/cgi-bin/x%20y/extra?a=%31",
                             .query = "a=%31",
                             .scriptName = "/cgi-bin/x y",
                             .extraPath = "/extra",
                             .documentRoot = "/srv/www",
                             .scriptFile = "/srv/www/cgi-bin/x y",
                             .secure = true,
                             .serverAddress = "10.0.0.1",
                             .serverPort = "443",
                             .remoteAddress = "10.0.0.2",
                             .remotePort = "40000",
                             .bodyBytes = 3,
                             .fields = &fields};
  ZrCgiVariables variables;
  zr::BuildStandardVariables(request, variables);
  EXPECT_EQ(LinesOf(variables), (Lines{"AUTH_TYPE=Basic",
                                       "CONTENT_LENGTH=3",
                                       "CONTENT_TYPE=text/x; a=b",
                                       "DOCUMENT_ROOT=/srv/www",
                                       "GATEWAY_INTERFACE=CGI/1.1",
                                       "HTTPS=on",
                                       "HTTP_ACCEPT=a/b, c/d",
                                       "HTTP_AUTHORIZATION=Basic dTpw",
                                       "HTTP_CONTENT_TYPE=text/x; a=b",
                                       "HTTP_COOKIE=a=1; b=2",
                                       "HTTP_HOST=example.org:8080",
                                       "PATH_INFO=/extra",
                                       "PATH_TRANSLATED=/srv/www/extra",
                                       "QUERY_STRING=a=%31",
                                       "REDIRECT_STATUS=200",
                                       "REMOTE_ADDR=10.0.0.2",
                                       "REMOTE_PORT=40000",
                                       "REQUEST_METHOD=POST",
                                       "REQUEST_SCHEME=https",
                                       "REQUEST_URI=/cgi-bin/x%20y/extra?a=%31",
                                       "SCRIPT_FILENAME=/srv/www/cgi-bin/x y",
                                       "SCRIPT_NAME=/cgi-bin/x y",
                                       "SERVER_ADDR=10.0.0.1",
                                       "SERVER_NAME=example.org",
                                       "SERVER_PORT=8080",
                                       "SERVER_PROTOCOL=HTTP/1.1",
                                       "SERVER_SOFTWARE=velkoro/1.28.1"}));

  // Without host, body, extra path and TLS; then hosts in every form.
  const ZrHeaderFields none;
  request.fields = &none;
  request.extraPath = {};
  request.bodyBytes.reset();
  request.secure = false;
  ZrCgiVariables fewer;
  zr::BuildStandardVariables(request, fewer);
  for (const char* absent :
       {"PATH_INFO", "PATH_TRANSLATED", "CONTENT_LENGTH", "CONTENT_TYPE", "HTTPS", "AUTH_TYPE"}) {
    EXPECT_FALSE(fewer.contains(absent)) << absent;
  }
  constexpr std::tuple<const char*, const char*, const char*> kHosts[] = {
      {"", "10.0.0.1", "443"},  {"name", "name", "443"},     {"[::1]", "[::1]", "443"},
      {"name:", "name", "443"}, {"[::1]:81", "[::1]", "81"}, {"name:x", "name", "443"}};
  for (const auto& [host, name, port] : kHosts) {
    ZrHeaderFields hosted;
    hosted.Append("host", host);
    request.fields = &hosted;
    ZrCgiVariables of;
    zr::BuildStandardVariables(request, of);
    EXPECT_EQ(of["SERVER_NAME"] + " " + of["SERVER_PORT"], std::string(name) + " " + port) << host;
  }
}

TEST(CgiVariables, ProgramsAreFoundInFrontOfTheirExtraPath) {
  const std::map<std::string_view, zr::ZrPathKind> there = {
      {"/cgi-bin", zr::ZrPathKind::kDirectory},   {"/cgi-bin/x", zr::ZrPathKind::kRegular},
      {"/cgi-bin/d", zr::ZrPathKind::kDirectory}, {"/cgi-bin/d/y", zr::ZrPathKind::kRegular},
      {"/cgi-bin/fifo", zr::ZrPathKind::kOther},
  };
  const auto kindOf = [&](std::string_view path) {
    const auto found = there.find(path);
    return found == there.end() ? zr::ZrPathKind::kMissing : found->second;
  };
  constexpr std::tuple<const char*, const char*, const char*> kCases[] = {
      {"/cgi-bin/x", "/cgi-bin/x", ""},
      {"/cgi-bin/x/", "/cgi-bin/x", "/"},
      {"/cgi-bin/x/a/b", "/cgi-bin/x", "/a/b"},
      {"/cgi-bin/d/y/z", "/cgi-bin/d/y", "/z"},
      {"/cgi-bin/d", "", ""},
      {"/cgi-bin/", "", ""},
      {"/cgi-bin/none/x", "", ""},
      {"/cgi-bin/fifo/x", "", ""},
      {"", "", ""}};
  for (const auto& [path, program, extra] : kCases) {
    const auto split = zr::SplitProgramPath(path, kindOf);
    EXPECT_EQ(split.has_value(), *program != '\0') << path;
    if (!split) continue;
    EXPECT_EQ(split->program, program);
    EXPECT_EQ(split->extra, extra);
  }
}

}  // namespace
