#include "handlers/cgi_variables.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "http/message_head.h"

namespace {

using std::string_view_literals::operator""sv;

using Fields = std::vector<std::pair<std::string_view, std::string_view>>;

/// The variables of a request, "NAME=value" each, sorted; empty when it is refused.
std::vector<std::string> Variables(ZrMessageType type, const Fields& fields) {
  const auto request = zr::MakeJob<ZrXHeader>(type, zr::kProtocolHttp);
  request->query = "a=1&b=%20";
  for (const auto& [name, value] : fields) request->headers.Append(name, value);
  ZrCgiVariables variables;
  std::vector<std::string> lines;
  const bool taken = zr::BuildCgiVariables(*request, variables);
  EXPECT_EQ(taken, !variables.empty());
  for (const auto& [name, value] : variables) lines.push_back(name + "=" + value);
  return lines;
}

using Lines = std::vector<std::string>;

TEST(CgiVariablesTest, MethodsHaveTheirOwn) {
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

TEST(CgiVariablesTest, OnlyHarmlessFieldsBecomeVariables) {
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

}  // namespace
