#include "http/program_answer.h"

#include <gtest/gtest.h>

namespace {

using std::string_view_literals::operator""sv;

/// "status field=value;... >local =length |page", or what it is otherwise.
std::string Read(std::string_view output) {
  const ZrProgramAnswer answer = zr::ReadProgramAnswer(output);
  if (answer.read == ZrProgramAnswer::Read::kIncomplete) return "incomplete";
  if (answer.read == ZrProgramAnswer::Read::kMalformed) return "malformed";
  std::string text = std::to_string(answer.status) + " ";
  for (const auto& [name, value] : answer.fields) text += name + "=" + value + ";";
  if (!answer.localRedirect.empty()) text += ">" + answer.localRedirect;
  if (answer.contentLength) text += "=" + std::to_string(*answer.contentLength);
  return text.append("|").append(output.substr(answer.headBytes));
}

TEST(ProgramAnswer, HeadsAreReadAndCutAtEachPlaceTheyAreIncomplete) {
  constexpr std::pair<std::string_view, std::string_view> kCases[] = {
      {"Content-Type: text/x\r\n\r\npage\r\n\r\n", "200 Content-Type=text/x;|page\r\n\r\n"},
      {"Content-Type:text/x \nX-A:  b c\t\n\npage", "200 Content-Type=text/x;X-A=b c;|page"},
      {"A: 1\r\nContent-Type: t/x\n\r\n", "200 A=1;Content-Type=t/x;|"},
      {"Status: 404 Not Found\r\n\r\n", "404 |"},
      {"status: 418\n\n", "418 |"},
      {"Location: http://a/b\n\n", "302 Location=http://a/b;|"},
      {"Location: //a/b\n\n", "302 Location=//a/b;|"},
      {"Location: /b?c=d\n\n", "200 >/b?c=d|"},
      {"Location: /b\nSet-Cookie: a=1\n\n", "302 Location=/b;Set-Cookie=a=1;|"},
      {"Status: 303 See Other\nLocation: /b\n\n", "303 Location=/b;|"},
      {"Set-Cookie: a=1\nSet-Cookie: b=2\nStatus: 200\n\n", "200 Set-Cookie=a=1;Set-Cookie=b=2;|"},
      {"Content-Type: t/x\nContent-Length: 4\ncontent-length: 4\n\npage",
       "200 Content-Type=t/x;=4|page"},
      {"Status: 200\nConnection: close\nTransfer-Encoding: chunked\nServer: x\nUpgrade: y\n\n",
       "200 |"},
  };
  for (const auto& [output, expected] : kCases) {
    EXPECT_EQ(Read(output), expected) << output;
    const std::size_t head = zr::ReadProgramAnswer(output).headBytes;
    for (std::size_t cut = 0; cut < head; ++cut) {
      EXPECT_EQ(Read(output.substr(0, cut)), "incomplete") << output << cut;
    }
  }
}

TEST(ProgramAnswer, WhatIsNoHeadIsMalformed) {
  for (const char* output :
       {"page\n", "\n", "\r\n\r\npage", "A: b\n\n", "Content-Length: 4\n\npage",
        "Content-Type : t/x\n\n", ": x\n\n", "Content-Type: t/x\n folded\n\n",
        "A: b\rc\nStatus: 200\n\n", "Status: 20\n\n", "Status: 100 Continue\n\n", "Status: 600\n\n",
        "Status: 200OK\n\n", "Status: -20\n\n",
        "Status: 200\nContent-Length: 4\nContent-Length: 5\n\n",
        "Status: 200\nContent-Length: x\n\n", "Location: \n\n", "Location: /a\nLocation: /b\n\n"}) {
    EXPECT_EQ(Read(output), "malformed") << output;
  }
  EXPECT_EQ(Read("A: b\0c\nStatus: 200\n\n"sv), "malformed");
  EXPECT_EQ(Read("A: " + std::string(zr::kMostProgramHead, 'x')), "malformed");
  EXPECT_EQ(Read("A: " + std::string(zr::kMostProgramHead - 4, 'x')), "incomplete");
}

}  // namespace
