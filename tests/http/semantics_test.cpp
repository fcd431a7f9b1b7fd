#include "http/semantics.h"

#include <gtest/gtest.h>

#include <sstream>

#include "base/exception.h"
#include "http/form_body.h"
#include "http/request_target.h"
#include "http/response_head.h"

namespace {

// A connection whose bytes are read by one set of rules: its requests one by one, and what is done
// between them.
class Exchange {
 public:
  explicit Exchange(const ZrSemantics& semantics) : semantics_(semantics) { Begin(); }

  void Feed(std::string_view bytes) {
    while (!closed_ && !bytes.empty()) {
      head->Input().Append(bytes);
      bytes = {};
      std::string surplus;
      do {
        if (!surplus.empty()) head->Input().Append(surplus);
        surplus.clear();
        last_ = semantics_.Read(*head, [](ZrXHeader& read) {
          read.bodyUnwanted = read.path == "/unwanted";
          return read.path != "/refused";
        });
        if (last_ == ZrReadStep::kContinue) out_ << "continue ";
        if (last_ == ZrReadStep::kClose) closed_ = true;
        if (last_ != ZrReadStep::kComplete) break;
        Tell();
        closed_ = head->closeRequested || head->endUncertain;
        if (head->surplus) surplus = head->surplus->Take();
        Begin();
      } while (!closed_ && !surplus.empty());
    }
  }

  // The requests, then how it stands.
  std::string Dump() const {
    constexpr const char* kSteps[] = {"head", "body", "body", "", "closed"};
    return out_.str() +
           (closed_ && last_ == ZrReadStep::kComplete ? "close" : kSteps[static_cast<int>(last_)]);
  }

  std::shared_ptr<ZrXHeader> head;

 private:
  void Begin() {
    head = zr::MakeJob<ZrXHeader>(ZrMessageType::kPost, zr::kProtocolHttp);
    head->semantics = &semantics_;
    head->body = std::make_unique<ZrStringBuf>();
  }
  void Tell() {
    if (head->refusal != 0) return static_cast<void>(out_ << head->refusal << ' ');
    EXPECT_EQ(ParseFormBody(*head), ZrReadResult::kComplete);
    out_ << static_cast<int>(head->method) << ' ' << head->path;
    if (!head->query.empty()) out_ << '?' << head->query;
    if (!head->authority.empty() && head->authority != "h") out_ << " @" << head->authority;
    for (const auto& [name, block] : head->allFields) {
      out_ << " {" << name << '=' << block->Text() << '}';
    }
    for (const auto& [name, values] : head->headers) {
      for (const std::string_view value : values) {
        if (name.starts_with("x")) out_ << " [" << name << '=' << value << ']';
      }
    }
    if (!head->body->Empty()) out_ << " <" << head->body->Unread() << '>';
    out_ << (head->keepsOld ? " keep; " : "; ");
  }

  const ZrSemantics& semantics_;
  std::ostringstream out_;
  ZrReadStep last_ = ZrReadStep::kHead;
  bool closed_ = false;
};

struct Case {
  const char* name;
  std::string input;
  const char* dump;
  bool cut = true;  // what it means does not depend on how it is cut
};

std::string Get(const std::string& lines, const std::string& target = "/") {
  return "GET " + target + " HTTP/1.1\r\nHost: h\r\n" + lines + "\r\n";
}
std::string Post(const std::string& lines, const std::string& body) {
  return "POST / HTTP/1.1\r\nHost: h\r\n" + lines + "\r\n" + body;
}
std::string Chunks(const std::string& body) { return Post("Transfer-Encoding: chunked\r\n", body); }
const std::string kLong(16 * 1024, 'x');

const Case kStandardCases[] = {
    {"values keep their blanks", Get("X-A:  a\t b \r\nX-B:\r\nX-A: c:d\r\n"),
     "0 / [x-a=a\t b] [x-a=c:d] [x-b=]; "},
    {"methods", Get("") + "HEAD /h HTTP/1.0\r\n\r\n", "0 /; 2 /h; close"},
    {"more methods",
     "PUT /a HTTP/1.1\r\nHost:\r\n\r\nPATCH /b HTTP/1.9\r\nhost: h\r\n\r\n"
     "DELETE /c HTTP/1.1\r\nHOST: h:1\r\n\r\nOPTIONS * HTTP/1.1\r\nHost: [::1]:8\r\n\r\n",
     "3 /a; 4 /b; 5 /c @h:1; 6 * @[::1]:8; "},
    {"unknown methods", "CONNECT h:1 HTTP/1.1\r\nHost: h\r\n\r\n", "501 close"},
    {"methods are case-sensitive", "get / HTTP/1.1\r\n", "501 close"},
    {"TLS", "\x16\x03\x01", "400 close", false},
    {"a version of later", "GET / HTTP/2.0\r\n", "505 close"},
    {"old and persistent",
     "GET / HTTP/1.0\r\nConnection: x, Keep-Alive\r\n\r\nGET / HTTP/1.0\r\n\r\nGET",
     "0 / keep; 0 /; close"},
    {"close in a list", Get("Connection: a\r\nconnection: b, CLOSE\r\n") + "G", "0 /; close"},
    {"empty lines in front", "\r\n\r\n" + Get(""), "0 /; "},
    {"line feeds alone", "POST / HTTP/1.1\nHost: h\nContent-Length: 1\n\nx" + Get(""),
     "1 / <x>; 0 /; "},
    {"lengths that agree", Post("Content-Length: 2, 2\r\nContent-Length: 2\r\n", "ab"),
     "1 / <ab>; "},
    {"too large", Post("Content-Length: 268435457\r\n", ""), "413 close"},
    {"larger than numbers", Post("Content-Length: 99999999999999999999\r\n", ""), "413 close"},
    {"an unknown coding", Post("Transfer-Encoding: gzip, chunked\r\n", ""), "501 close"},
    {"a list with empty places", Post("Transfer-Encoding: , chunked ,\r\n", "0\r\n\r\n"), "1 /; "},
    {"chunks",
     Post("Transfer-Encoding: Chunked\r\n",
          "3;a=\"b\"\r\nabc\r\n00A \r\n0123456789\r\n0\r\nX-T: t\r\n\r\n") +
         Get(""),
     "1 / <abc0123456789>; 0 /; "},
    {"a chunk size without end", Chunks(std::string(9000, '0')), "400 close", false},
    {"trailers without end", Chunks("0\r\nX: " + kLong + kLong + kLong + kLong + kLong),
     "400 close", false},
    {"a body of chunks too large", Chunks("10000001\r\n"), "413 close"},
    {"pipelined", Post("Content-Length: 1\r\n", "a") + Post("Content-Length: 1\r\n", "b") + Get(""),
     "1 / <a>; 1 / <b>; 0 /; "},
    {"form fields",
     "POST /?q=a+b HTTP/1.1\r\nHost: h\r\nContent-Length: 3\r\n"
     "Content-Type: Application/X-WWW-Form-Urlencoded; charset=utf-8\r\n\r\nc=d",
     "1 /?q=a+b {c=d} {q=a b} <c=d>; "},
    {"quoted boundary",
     Post("Content-Length: 59\r\nContent-Type: multipart/form-data; boundary=\"b b\"\r\n",
          "--b b\r\ncontent-disposition: form-data; name=\"n\"\r\n\r\nv\r\n--b b"),
     "1 / {n=v} <--b b\r\ncontent-disposition: form-data; name=\"n\"\r\n\r\nv\r\n--b b>; "},
    {"waits for the word to go on", Post("Expect: 100-Continue\r\nContent-Length: 1\r\n", ""),
     "continue body"},
    {"is not waiting any more", Post("Expect: 100-continue\r\nContent-Length: 2\r\n", "x"), "body",
     false},
    {"other expectations", Post("Expect: 200-ok\r\nContent-Length: 1\r\n", ""), "417 close"},
    {"an old one cannot wait",
     "POST / HTTP/1.0\r\nExpect: 100-continue\r\nContent-Length: 1\r\n\r\nx", "1 / <x>; close"},
    {"a GET with a body", Get("Content-Length: 2\r\n") + "ab" + Get("", "/b"), "0 / <ab>; 0 /b; "},
    {"expects to be refused",
     "PUT /unwanted HTTP/1.1\r\nHost: h\r\nExpect: 100-continue\r\nContent-Length: 9\r\n\r\n",
     "3 /unwanted; close"},
    {"nobody's body", "PUT /unwanted HTTP/1.1\r\nHost: h\r\nContent-Length: 2\r\n\r\nab" + Get(""),
     "3 /unwanted <ab>; 0 /; ", false},
    {"refused by its handler", Get("", "/refused"), "closed"},
    {"long target", "GET /" + kLong, "414 close"},
    {"long head", Get("X: " + kLong + kLong + kLong + kLong), "431 close", false},
    {"absolute", Get("", "http://other:80/a?b"), "0 /a?b @other:80; "},
};

const Case kMinimalCases[] = {
    {"pipelined", "GET /a x\r\n\r\nGET /b x\r\n\r\n", "0 /a; 0 /b; "},
    {"more than declared", "POST / x\r\nContent-Length: 1\r\n\r\nab", "closed", false},
    {"garbage", "\x16\x03", "closed"},
    {"no length", "POST / x\r\n\r\n", "1 /; close"},
};

void ReadCut(const ZrSemantics& semantics, const Case& c) {
  SCOPED_TRACE(c.name);
  Exchange whole(semantics);
  whole.Feed(c.input);
  EXPECT_EQ(whole.Dump(), c.dump);
  if (!c.cut) return;
  Exchange bytes(semantics);
  for (const char& byte : c.input) bytes.Feed({&byte, 1});
  EXPECT_EQ(bytes.Dump(), c.dump);
  const std::size_t step = 1 + c.input.size() / 1000;
  for (std::size_t cut = 1; cut < c.input.size(); cut += step) {
    Exchange pieces(semantics);
    pieces.Feed(std::string_view(c.input).substr(0, cut));
    pieces.Feed(std::string_view(c.input).substr(cut));
    ASSERT_EQ(pieces.Dump(), c.dump) << "cut at " << cut;
  }
}

TEST(Semantics, ReadRequestsHoweverTheyAreCut) {
  for (const Case& c : kStandardCases) ReadCut(ZrSemantics::Standard(), c);
  for (const Case& c : kMinimalCases) ReadCut(ZrSemantics::Minimal(), c);
  EXPECT_THROW(ZrSemantics::Named("Standard"), ZrException);
}

// What is no request, or may be read as another one.
TEST(Semantics, MalformedRequestsAreRefusedHoweverTheyAreCut) {
  const auto refused = [](const std::string& input) {
    ReadCut(ZrSemantics::Standard(), {input.c_str(), input, "400 close"});
  };
  for (const char* head :
       {"G(T / HTTP/1.1\r\n", "GET /\r\n\r\n", "GET / HTTP/1.1 \r\n", "GET  / HTTP/1.1\r\n",
        "GET / http/1.1\r\n", "GET /%zz HTTP/1.1\r\n", "GET * HTTP/1.1\r\n",
        "GET / HTTP/1.1\r\n\r\n", "\r\n\r\n\r\n\r\n\r\n\r\n\r\n\r\n\r\n",
        "GET / HTTP/1.1\r\nHost: h\nX-A: b\r\n\r\n", "GET / HTTP/1.1\r\nHost: a/b\r\n\r\n",
        "GET / HTTP/1.1\r\nHost: h%zz\r\n\r\n", "GET / HTTP/1.1\r\nHost: h%4\r\n\r\n",
        "GET / HTTP/1.1\r\nHost: u@h\r\n\r\n",
        "POST / HTTP/1.0\r\nTransfer-Encoding: chunked\r\n\r\n"}) {
    refused(head);
  }
  for (const char* line :
       {"X-A: a\rb", "X-A: a\r\n b", "X-A : b", "X-A", ": b", "Host: h",
        "Content-Length: 2\r\nContent-Length: 02", "Content-Length: +2", "Content-Length: 2,",
        "Content-Length: 5\r\nTransfer-Encoding: chunked",
        "Transfer-Encoding:", "Transfer-Encoding: chunked\r\nTransfer-Encoding: chunked",
        "Transfer-Encoding: chunked;q=1"}) {
    refused(Post(line + std::string("\r\n"), "ab"));
  }
  for (const char* chunk : {"\r\n", "1;a\nb\r\nx\r\n", "+1\r\nx\r\n", "1\r\nxy\r\n", "1\n", "1\rx",
                            "0\r\n\n", "0\r\nX\rY\r\n\r\n"}) {
    refused(Chunks(chunk));
  }
  refused(Get(std::string("X-A: a\0b\r\n", 10)));
}

TEST(Semantics, TargetsAreDecodedOnce) {
  constexpr const char* kCases[][3] = {
      {"/", "/", ""},
      {"/a%20b%C3%bc%25zz?q=%zz&?", "/a b\xC3\xBC%zz", "q=%zz&?"},
      {"/a/./b/../c/.", "/a/c/", ""},
      {"/../%2e%2E/a/..", "/", ""},
      {"/a//b/...", "/a//b/...", ""},
      {"HTTPS://[::1]:1", "/", ""},
      {"http://h?q", "/", "q"},
      {"*", "*", ""},
  };
  for (const auto& [text, path, query] : kCases) {
    const auto target = zr::ParseRequestTarget(text);
    ASSERT_TRUE(target) << text;
    EXPECT_EQ(target->path, path);
    EXPECT_EQ(target->query, query);
  }
  for (const char* malformed :
       {"/a%2fb", "/%00", "/%4", "/a#b", "/a\x7F", "/a b", "", "a", "ftp://h/", "http:///a",
        "http://u@h/", "http://[::1/", "http://h:x/"}) {
    EXPECT_FALSE(zr::ParseRequestTarget(malformed)) << malformed;
  }
}

TEST(Semantics, StandardAnswersSayWhatTheyAre) {
  using Fields = std::vector<std::pair<std::string, std::string>>;
  // What stands behind "Date" and "Server" in the answer to a request.
  const auto expect = [](const std::string& request, const std::string& fields, bool body = true,
                         const Fields& added = {}, std::uint64_t status = 200,
                         const char* text = "page") {
    SCOPED_TRACE(request + fields);
    Exchange exchange(ZrSemantics::Standard());
    exchange.head->body->Append(request);
    ASSERT_EQ(ZrSemantics::Standard().Read(*exchange.head, [](ZrXHeader&) { return true; }),
              ZrReadStep::kComplete);
    const auto answer = exchange.head->MakeResponse();
    answer->SetBodyText(text);
    for (const auto& [name, value] : added) answer->AddField(name, value);
    answer->status = status;
    ZrStringBuf out;
    ASSERT_TRUE(answer->WriteHead(out));
    const std::string head = out.Take();
    const std::size_t date = head.find("\r\nDate: ");
    const std::size_t own = head.find("\r\nServer: velkoro/1.28.1(96)\r\n");
    ASSERT_TRUE(head.starts_with("HTTP/1.1 ") && date < own && own != std::string::npos) << head;
    EXPECT_EQ(head.substr(own + 30), fields + "\r\n");
    EXPECT_EQ(ZrSemantics::Standard().SendsBody(*answer), body);
  };
  const std::string noSniff = "X-Content-Type-Options: nosniff\r\n";
  const std::string length = "Content-Length: 4\r\n";
  const std::string page = length + "Content-Type: text/html; charset=utf-8\r\n" + noSniff;
  const std::string old = "GET / HTTP/1.0\r\n";
  const std::string keep = "Connection: keep-alive\r\n";
  const std::string close = "Connection: close\r\n";
  expect(Get(""), page);
  expect("HEAD / HTTP/1.1\r\nHost: h\r\n\r\n", page, false);
  expect(Get(""), length + noSniff + "Content-Type: text/x\r\n", true,
         {{"Content-Type", "text/x"}, {"content-length", "9"}});
  expect(Get(""), page + "Set-Cookie: a\r\nSet-Cookie: b\r\n", true,
         {{"Set-Cookie", "a"}, {"set-cookie", "b"}, {"X", "a\r\nb"}, {"a b", "c"}});
  expect(Get(""), "", false, {}, 204);
  expect(Get(""), "Content-Length: 0\r\n" + noSniff, true, {}, 418, "");
  expect(Get(close), close + page);
  expect(old + "\r\n", close + page);
  expect(old + keep + "\r\n", keep + page);
}

}  // namespace
