#include "http/message_head.h"

#include <gtest/gtest.h>

#include <sstream>

#include "http/form_body.h"
#include "http/response_head.h"

namespace {

// A head that is fed pieces, as a connection does it.
class Reader {
 public:
  ZrReadResult Feed(std::string_view bytes) {
    head->body->Append(bytes);
    result = head->ReadHead([this](ZrXHeader& seen) {
      EXPECT_EQ(&seen, head.get());
      ++callbacks;
      return true;
    });
    return result;
  }

  // Kind and type, the words of the first line, then what differs from the usual.
  std::string Dump() const {
    std::ostringstream out;
    out << static_cast<int>(head->kind.load()) << static_cast<int>(head->messageType.load());
    const ZrHeaderFields::Values words = head->headers[zr::kFirstLine];
    for (std::size_t i = 0; i < words.size(); ++i) out << (i == 0 ? ' ' : '|') << words[i];
    if (words.size() < 2 ? !head->path.empty() : head->path != words[1]) {
      out << " path=" << head->path;
    }
    if (!head->query.empty()) out << " query=" << head->query;
    for (const auto& [name, values] : head->headers) {
      if (name == zr::kFirstLine) continue;
      for (const std::string_view value : values) out << " [" << name << "=" << value << "]";
    }
    for (const auto& [name, block] : head->queryFields) {
      out << " {" << name << "=" << block->Text() << "}";
    }
    out << (head->closeRequested ? " close" : "") << (head->endUncertain ? " last" : "")
        << (callbacks == 1 ? "" : " uncalled");
    EXPECT_LE(callbacks, 1);
    if (!head->body->Empty()) out << " body=" << head->body->Unread();
    out << " -> " << static_cast<int>(result);
    return out.str();
  }

  std::shared_ptr<ZrXHeader> head = zr::MakeJob<ZrXHeader>(ZrMessageType::kPost, zr::kProtocolHttp);
  int callbacks = 0;
  ZrReadResult result = ZrReadResult::kIncomplete;

  Reader() { head->body = std::make_unique<ZrStringBuf>(); }
};

struct ReadCase {
  const char* name;
  std::string input;
  const char* dump;
};

const ReadCase kReadCases[] = {
    {"lower-case request line", "get /a?x=1 http/1.1\r\n\r\n",
     "21 GET|/a?x=1|HTTP/1.1 path=/a query=x=1 {x=1} -> 2"},
    {"a POST has no query", "POST /a?x=1 HTTP/1.1\r\n\r\n",
     "22 POST|/a?x=1|HTTP/1.1 path=/a last -> 2"},
    {"query decoding", "GET /?q=a+b&%41%zz=%2&skip&=v&q=c? HTTP/1.1\r\n\r\n",
     "21 GET|/?q=a+b&%41%zz=%2&skip&=v&q=c?|HTTP/1.1 path=/ query=q=a+b&%41%zz=%2&skip&=v&q=c? "
     "{A%zz=%2} {q=c?} -> 2"},
    {"answer of a server", "HTTP/1.1 200 OK then\r\nContent-Length: 3\r\n\r\nabc",
     "12 HTTP/1.1|200|OK THEN [content-length=3] body=abc -> 2"},
    {"unknown method", "FOO / HTTP/1.1\r\nA: b\r\n\r\n",
     "02 FOO|/|HTTP/1.1 uncalled body=A: b\r\n\r\n -> 2"},
    {"one word", "GET\r\n", "02 GET uncalled -> 2"},
    {"a word and a space", "GET \r\n\r\n", "21 GET -> 2"},
    {"two words", "\t GE\tT   /a\tb\r\n\r\n", "21 GET|/ab -> 2"},
    {"the third word keeps its spaces", "GET /  x y \r\n\r\n", "21 GET|/| X Y  -> 2"},
    {"an empty line first is an empty head", "\r\nGET / HTTP/1.1\r\n\r\n",
     "02 body=GET / HTTP/1.1\r\n\r\n -> 2"},
    {"blanks and colons",
     "GET / HTTP/1.1\r\nContent-Type : multipart/form-data; boundary=X\r\n::N::a: b:\tc:\r\nNo "
     "colon\r\nEmpty: : \r\n: :\r\n\r\n",
     "21 GET|/|HTTP/1.1 [content-type=multipart/form-data;boundary=X] [n=a:b:c:] -> 2"},
    {"blanks wherever eight bytes are taken at once",
     "GET / x\r\nA: 1234567 12345678\t9\r\nB:12345678 \r\nC:1\t234567812345678\x7F\xFF\r\n\r\n",
     "21 GET|/|X [a=1234567123456789] [b=12345678] [c=1234567812345678\x7F\xFF] -> 2"},
    {"repeated fields keep their order",
     "GET / HTTP/1.1\r\nAccept: b\r\nHost: h\r\nACCEPT: a\r\n\r\n",
     "21 GET|/|HTTP/1.1 [accept=b] [accept=a] [host=h] -> 2"},
    {"lone line ends are bytes of the line", "GET /a\nb\rc\r\r\nA: x\ny\r\n\r\n",
     "21 GET|/a\nb\rc\r [a=x\ny] -> 2"},
    {"close is case-sensitive and in the first value",
     "GET / x\r\nConnection: Close\r\nConnection: close\r\n\r\n",
     "21 GET|/|X [connection=Close] [connection=close] -> 2"},
    {"body too short", "POST / x\r\nContent-Length: 4\r\n\r\nabc",
     "22 POST|/|X [content-length=4] body=abc -> 0"},
    {"body too long", "POST / x\r\nContent-Length: 2\r\n\r\nabc",
     "22 POST|/|X [content-length=2] body=abc -> 1"},
    {"body of no declared length", "POST / x\r\n\r\nabc", "22 POST|/|X last body=abc -> 2"},
    {"a length that is no number is 0", "POST / x\r\nContent-Length: +3\r\n\r\nabc",
     "22 POST|/|X [content-length=+3] last body=abc -> 1"},
    {"a length that is too large is 0", "POST / x\r\nContent-Length: 18446744073709551616\r\n\r\n",
     "22 POST|/|X [content-length=18446744073709551616] last -> 2"},
    {"lengths that agree", "POST / x\r\nContent-Length: 3, 03\r\nContent-Length: 3\r\n\r\nabc",
     "22 POST|/|X [content-length=3,03] [content-length=3] body=abc -> 2"},
    {"a list that differs", "POST / x\r\nContent-Length: 3,4\r\n\r\n",
     "22 POST|/|X [content-length=3,4] -> 1"},
    {"fields that differ", "GET / x\r\nContent-Length: 0\r\nContent-Length: 5\r\n\r\n",
     "21 GET|/|X [content-length=0] [content-length=5] -> 1"},
    {"a length and none", "GET / x\r\nContent-Length: 5,\r\n\r\n",
     "21 GET|/|X [content-length=5,] last -> 1"},
    {"a transfer coding", "GET / x\r\nTransfer -Encoding\t: :identity\r\n\r\n",
     "21 GET|/|X [transfer-encoding=identity] -> 1"},
    {"end missing", "GET / HTTP/1.1\r\nA: b\r\n\r",
     "21 GET|/|HTTP/1.1 [a=b] uncalled body=\r -> 0"},
};

TEST(MessageHead, ReadsHeadsHoweverTheyAreCut) {
  for (const ReadCase& c : kReadCases) {
    SCOPED_TRACE(c.name);
    Reader bytes;
    for (const char& byte : c.input) bytes.Feed({&byte, 1});
    EXPECT_EQ(bytes.Dump(), c.dump);
    for (std::size_t cut = 0; cut < c.input.size(); ++cut) {
      Reader pieces;
      pieces.Feed(std::string_view(c.input).substr(0, cut));
      pieces.Feed(std::string_view(c.input).substr(cut));
      EXPECT_EQ(pieces.Dump(), c.dump) << "cut at " << cut;
    }
  }
}

TEST(MessageHead, HeadsHaveLimits) {
  const std::string first = "GET / HTTP/1.1\r\n";
  const auto headOfSize = [&first](std::size_t size) {
    return first + "a: " + std::string(size - first.size() - 7, 'x') + "\r\n\r\n";
  };
  std::string most = first;
  for (int i = 1; i < 200; ++i) most += "a: b\r\n";
  using enum ZrReadResult;
  const std::pair<std::string, ZrReadResult> kCases[] = {
      {headOfSize(64 * 1024), kComplete},
      {headOfSize(64 * 1024 + 1), kRejected},
      {std::string(64 * 1024 + 1, 'x'), kRejected},
      {most + "\r\n", kComplete},
      {most + "a: b\r\n\r\n", kRejected},
      {first + "content-length: 268435456\r\n\r\n", kIncomplete},
      {first + "content-length: 268435457\r\n\r\n", kRejected}};
  for (const auto& [input, result] : kCases) {
    SCOPED_TRACE(std::to_string(input.size()) + " bytes: " + input.substr(0, 60));
    EXPECT_EQ(Reader().Feed(input), result);
    Reader pieces;
    for (std::size_t at = 0; at < input.size(); at += 7) pieces.Feed(input.substr(at, 7));
    EXPECT_EQ(pieces.result, result);
    if (result == kRejected) {
      EXPECT_EQ(pieces.Feed("\r\n\r\n"), result);
    }
  }
}

std::string WrittenHead(ZrXHeader& head) {
  ZrStringBuf out;
  EXPECT_TRUE(head.WriteHead(out));
  return out.Take();
}

const std::string kServer = "Server: velkoro/1.28.1(96)\r\n";

TEST(MessageHead, WritesAnswers) {
  const auto file = Reader().head->MakeResponse();
  ZrStringBuf out;
  EXPECT_FALSE(file->WriteHead(out));  // not complete yet
  file->SetStatus(404);
  file->SetFileBody("/x", 1ull << 40);
  file->SetState(zr::kHeadStateComplete);
  EXPECT_EQ(WrittenHead(*file),
            "HTTP/1.1 404 Not Found\r\n" + kServer + "Content-Length: 1099511627776\r\n\r\n");

  const auto redirect = Reader().head->MakeResponse();
  redirect->SetStatus(303);
  redirect->location = "/next\r\nSet-Cookie: forged";
  redirect->SetState(zr::kHeadStateComplete);
  EXPECT_EQ(WrittenHead(*redirect),
            "HTTP/1.1 303 Redirect\r\n" + kServer +
                "Content-Length: 0\r\nLocation: /nextSet-Cookie: forged\r\n\r\n");

  // A client would not read the body of a 204.
  const auto odd = Reader().head->MakeResponse();
  odd->SetBodyText("hel");
  odd->SetBodyText("lo");
  odd->status = 204;
  EXPECT_EQ(WrittenHead(*odd),
            "HTTP/1.1 500 Internal Error\r\n" + kServer + "Content-Length: 5\r\n\r\n");
}

}  // namespace
