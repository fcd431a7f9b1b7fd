#include "handlers/cgi_variables.h"

#include <gtest/gtest.h>

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

TEST(CgiVariables, OnlyHarmlessFieldsBecomeVariables) {
  constexpr ZrMessageType kGet = ZrMessageType::kGet;
  constexpr ZrMessageType kPost = ZrMessageType::kPost;
  struct Case {
    const char* name;
    ZrMessageType type;
    Fields fields;
    Lines variables;  // beside those that a GET always has
  };
  const Case cases[] = {
      {"GET", kGet, {{":first:", "GET"}, {"content-length", "3"}}, {"HTTP_CONTENT_LENGTH=3"}},
      {"never a proxy", kGet, {{"proxy", "a"}, {"proxy-x", "\xff"}}, {"HTTP_PROXY_X=\xff"}},
      {"names",
       kGet,
       {{"a.b", "1"}, {"a=b", "1"}, {"a\0b"sv, "1"}, {"\xe9", "1"}, {"()_{", "1"}},
       {}},
      {"the dash wins",
       kGet,
       {{"a_b", "forged"}, {"a-b", "real"}, {"c_d-e", "forged"}, {"c-d_e", "real"}, {"c-d_e", "2"}},
       {"HTTP_A_B=real", "HTTP_C_D_E=real"}},
      {"no NUL byte", kGet, {{"x", "a\0b"sv}, {"content-type", "\0"sv}}, {}},
      {"POST",
       kPost,
       {{"content-type", "m/f;b=X\r\n"}, {"content-length", "12"}},
       {"CONTENT_LENGTH=12", "CONTENT_TYPE=m/f;b=X", "HTTP_CONTENT_LENGTH=12",
        "HTTP_CONTENT_TYPE=m/f;b=X\r\n", "REQUEST_METHOD=POST"}},
      {"no type",
       kPost,
       {},
       {"CONTENT_TYPE=application/x-www-form-urlencoded", "REQUEST_METHOD=POST"}},
      {"no NUL byte", kPost, {{"content-type", "a\0b"sv}}, {"REQUEST_METHOD=POST"}},
      {"an answer", ZrMessageType::kAnswer, {{"a", "b"}}, {}},
  };
  for (const Case& c : cases) {
    Lines expected = c.variables;
    if (c.type == kGet)
      expected.insert(expected.end(), {"QUERY_STRING=a=1&b=%20", "REQUEST_METHOD=GET"});
    EXPECT_EQ(Variables(c.type, c.fields), expected) << c.name;
  }
}

TEST(CgiVariables, StandardSemanticsGiveWhatTheRequestHas) {
  const std::pair<const char*, const char*> sent[] = {{"authorization", "Basic dTpw"},
                                                      {"content-type", "text/x; a=b"},
                                                      {"cookie", "a=1"},
                                                      {"cookie", "b=2"},
                                                      {"accept", "a/b"},
                                                      {"accept", "c/d"},
                                                      {"proxy", "evil"}};
  ZrHeaderFields fields;
  for (const auto& [name, value] : sent) fields.Append(name, value);
  const ZrHeaderFields none;
  zr::ProgramRequest request;
  request.serverAddress = "10.0.0.1";
  request.serverPort = "443";
  request.fields = &none;
  ZrCgiVariables fewer;
  zr::BuildStandardVariables(request, fewer);
  request.fields = &fields;
  ZrCgiVariables unknown;
  zr::BuildStandardVariables(request, unknown);
  EXPECT_FALSE(unknown.contains("AUTH_TYPE"));
  request.user = "u";
  request.extraPath = "/extra";
  request.documentRoot = "/srv/www";
  request.secure = true;
  request.bodyBytes = 3;
  ZrCgiVariables all;
  zr::BuildStandardVariables(request, all);
  EXPECT_FALSE(all.contains("HTTP_PROXY"));
  const ZrCgiVariables sometimes = {{"AUTH_TYPE", "Basic"},
                                    {"CONTENT_LENGTH", "3"},
                                    {"CONTENT_TYPE", "text/x; a=b"},
                                    {"HTTPS", "on"},
                                    {"HTTP_ACCEPT", "a/b, c/d"},
                                    {"HTTP_AUTHORIZATION", "Basic dTpw"},
                                    {"HTTP_COOKIE", "a=1; b=2"},
                                    {"PATH_INFO", "/extra"},
                                    {"PATH_TRANSLATED", "/srv/www/extra"},
                                    {"REMOTE_USER", "u"}};
  for (const auto& [name, value] : sometimes) {
    EXPECT_EQ(all[name], value) << name;
    EXPECT_FALSE(fewer.contains(name)) << name;
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
  const auto kindOf = [](std::string_view path) {
    if (path == "/cgi-bin" || path == "/cgi-bin/d") return zr::ZrPathKind::kDirectory;
    if (path == "/cgi-bin/x" || path == "/cgi-bin/d/y") return zr::ZrPathKind::kRegular;
    return path == "/cgi-bin/fifo" ? zr::ZrPathKind::kOther : zr::ZrPathKind::kMissing;
  };
  constexpr std::tuple<const char*, const char*, const char*> kFound[] = {
      {"/cgi-bin/x", "/cgi-bin/x", ""},
      {"/cgi-bin/x/", "/cgi-bin/x", "/"},
      {"/cgi-bin/x/a/b", "/cgi-bin/x", "/a/b"},
      {"/cgi-bin/d/y/z", "/cgi-bin/d/y", "/z"}};
  for (const auto& [path, program, extra] : kFound) {
    const auto split = zr::SplitProgramPath(path, kindOf);
    ASSERT_TRUE(split) << path;
    EXPECT_EQ(split->program, program);
    EXPECT_EQ(split->extra, extra);
  }
  for (const char* none : {"/cgi-bin/d", "/cgi-bin/", "/cgi-bin/none/x", "/cgi-bin/fifo/x", ""})
    EXPECT_FALSE(zr::SplitProgramPath(none, kindOf)) << none;
}

}  // namespace
