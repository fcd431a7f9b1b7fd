#include "http/answer_reader.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <string_view>

#include "http/message_head.h"

namespace {

using Result = ZrAnswerReader::Result;
using Line = ZrAnswerReader::Line;
using enum ZrAnswerReader::Line;

std::string Repeated(std::string_view text, std::size_t times) {
  std::string all;
  for (; times > 0; --times) all += text;
  return all;
}

/// "status body|rest keep" (or close) of an answer that came in such pieces and of which the last
/// one showed what has become of the line; why it is unreadable; or how far it is.
std::string Read(std::string_view sent, Line line, std::size_t piece, bool noBody) {
  ZrAnswerReader reader;
  if (noBody) reader.ExpectNoBody();
  std::shared_ptr<ZrXHeader> head;
  ZrStringBuf input;
  Result result = Result::kIncomplete;
  int asked = 0;
  for (bool more = true; more && (result == Result::kIncomplete || result == Result::kInterim);) {
    if (result == Result::kInterim || !head)
      head = zr::MakeJob<ZrXHeader>(ZrMessageType::kPost, zr::kProtocolHttp);
    if (result == Result::kIncomplete) {
      input.Append(sent.substr(0, piece));
      sent.remove_prefix(std::min(piece, sent.size()));
    }
    result = reader.Read(*head, input, sent.empty() ? line : kOpen, [&asked](ZrXHeader& it) {
      ++asked;
      return it.status != 500;  // which the caller does not want
    });
    more = !sent.empty() || result == Result::kInterim;
  }
  input.Append(sent);
  if (result == Result::kIncomplete) return reader.InHead(*head) ? "in the head" : "incomplete";
  if (result == Result::kUnreadable) return reader.Problem();
  EXPECT_EQ(asked, 1);
  std::string text = std::to_string(head->status) + " ";
  text.append(head->body->Unread()).append("|").append(input.Unread());
  return text + (reader.KeepsConnection() ? " keep" : " close");
}

TEST(AnswerReader, EachAnswerHasOneEndHoweverItIsCut) {
  const std::string ok = "HTTP/1.1 200 OK\r\n";
  const std::string chunked = ok + "Transfer-Encoding: chunked\r\n\r\n";
  const std::string wait = "HTTP/1.1 102 Wait\r\n\r\n";
  const std::string one = ok + "Content-Length: 1\r\n\r\nx";
  const std::string tooLong = "the body of the answer is too long";
  const std::string badLength = "the answer has a bad length";
  const std::string cutHead = "the connection ended in the head of the answer";
  const std::string cutBody = "the connection ended in the body of the answer";
  const std::string none = "the answer has no status";
  const std::string other = "it is no answer of this protocol";
  const std::string coding = "the answer has an unknown transfer coding";
  const std::string noSize = "a chunk of the answer has no size";
  struct Row {
    std::string sent;
    Line line;
    std::string expected;
    bool noBody = false;  // the request was a HEAD
  };
  const Row rows[] = {
      // A length, and what follows it.
      {one, kOpen, "200 x| keep"},
      {one + one, kEnded, "200 x|" + one + " keep"},
      {ok + "Content-Length: 0\r\n\r\nx", kOpen, "200 |x keep"},
      {ok + "Content-Length: 2, 2\r\ncontent-length: 2\r\n\r\nab", kOpen, "200 ab| keep"},
      {ok + "Content-Length: 1\r\nContent-Length: 2\r\n\r\nab", kOpen, badLength},
      {ok + "Content-Length: -1\r\n\r\n", kOpen, badLength},
      {ok + "Content-Length: 268435456\r\n\r\nx", kOpen, "incomplete"},
      {ok + "Content-Length: 268435457\r\n\r\nx", kOpen, tooLong},
      {ok + "Content-Length: 4\r\n\r\nab", kEnded, cutBody},
      // Chunks.
      {chunked + "3\r\nabc\r\n1 ;x=y\r\nd\r\n0\r\nTrailer: t\r\n\r\nx", kOpen, "200 abcd|x keep"},
      {ok + "transfer-encoding: Chunked\r\nContent-Length: 9\r\n\r\n0A\r\n0123456789\r\n0\r\n\r\n",
       kOpen, "200 0123456789| close"},
      {chunked + "4\r\nab", kEnded, cutBody},
      {chunked + "2\r\nab\r\n0\r\n", kEnded, cutBody},
      {chunked + "zz\r\n", kOpen, noSize},
      {chunked + "1;" + std::string(4096, 'x'), kOpen, noSize},
      {chunked + "1\r\nab\r\n", kOpen, "a chunk of the answer has no end"},
      {chunked + "1\r\na\r\n10000000\r\n", kOpen, "incomplete"},
      {chunked + "1\r\na\r\n10000000\r\nb", kOpen, tooLong},
      {chunked + "0\r\n" + std::string(65537, 'x'), kOpen,
       "the fields behind the answer are too long"},
      {ok + "Transfer-Encoding: gzip, chunked\r\n\r\n", kOpen, coding},
      {ok + "Transfer-Encoding: chunked\r\nTransfer-Encoding: gzip\r\n\r\n", kOpen, coding},
      // The end of the connection, which must have been one.
      {ok + "\r\nabcd", kOpen, "incomplete"},
      {ok + "\r\nabcd", kEnded, "200 abcd| close"},
      {ok + "\r\nabcd", kBroken, cutBody},
      // No body, whatever the head says.
      {"HTTP/1.1 204 No\r\n\r\nHTTP", kOpen, "204 |HTTP keep"},
      {"HTTP/1.1 304 No\r\nContent-Length: 4\r\n\r\n", kEnded, "304 | keep"},
      {chunked + "x", kOpen, "200 |x keep", true},
      {ok + "Content-Length: 300000000\r\n\r\n", kOpen, "200 | keep", true},
      // Others before it; nobody asks for another protocol here.
      {"HTTP/1.1 100 Go on\r\nContent-Length: 9\r\n\r\n" + wait + one, kOpen, "200 x| keep"},
      {"HTTP/1.1 101 Other\r\nUpgrade: other\r\n\r\n" + one, kOpen, "200 x| keep"},
      {"HTTP/1.1 101 Other\r\nUpgrade: other\r\n\r\nother\r\n", kOpen, other},
      {Repeated(wait, 64) + one, kOpen, "200 x| keep"},
      {Repeated(wait, 65) + one, kOpen, "interim answers without end"},
      {wait, kEnded, cutHead},
      // The head.
      {"", kOpen, "incomplete"},
      {"", kBroken, cutHead},
      {"HTTP/1.1 2", kOpen, "in the head"},
      {ok + "Content-Len", kEnded, cutHead},
      {"\x16\x03\x01garbage\r\n\r\n", kOpen, other},
      {"GET / HTTP/1.1\r\n\r\n", kOpen, other},
      {"HTTP/1.1 099 OK\r\n\r\n", kOpen, none},
      {"HTTP/1.1 0200 OK\r\n\r\n", kOpen, none},
      {"HTTP/1.1 500 No\r\n\r\n", kOpen, "the answer was refused"},
      {ok + Repeated("a: b\r\n", 199) + "\r\n", kEnded, "200 | close"},
      {ok + Repeated("a: b\r\n", 200) + "\r\n", kOpen, "the head of the answer is too long"},
      {ok + "a: " + std::string(65536 - 24, 'x') + "\r\n\r\n", kEnded, "200 | close"},
      {ok + "a: " + std::string(65536 - 23, 'x') + "\r\n\r\n", kOpen,
       "the head of the answer is too long"},
      // Whether the connection goes on.
      {ok + "Connection: x, Close\r\nContent-Length: 0\r\n\r\n", kOpen, "200 | close"},
      {"HTTP/1.0 200 OK\r\nContent-Length: 0\r\n\r\n", kOpen, "200 | close"},
      {"HTTP/1.0 404 No\r\nConnection: Keep-Alive\r\nContent-Length: 0\r\n\r\n", kOpen,
       "404 | keep"},
      {"QUARN/1.1 999 X\r\nContent-Length: 0\r\n\r\n", kOpen, "999 | keep"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.sent.substr(0, 120));
    EXPECT_EQ(Read(row.sent, row.line, row.sent.size() + 1, row.noBody), row.expected);
    EXPECT_EQ(Read(row.sent, row.line, 1, row.noBody), row.expected) << "byte by byte";
  }
}

}  // namespace
