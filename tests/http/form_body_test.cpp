#include "http/form_body.h"

#include <gtest/gtest.h>

#include <sstream>

#include "tests/support/captured.h"

namespace {

std::shared_ptr<ZrXHeader> Request(std::string_view contentType, const std::string& body,
                                   std::string_view target = "/") {
  auto head = zr::MakeJob<ZrXHeader>(ZrMessageType::kPost, zr::kProtocolHttp);
  head->body = std::make_unique<ZrStringBuf>(
      "GET " + std::string(target) + " HTTP/1.1\r\nContent-Type: " + std::string(contentType) +
      "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body);
  EXPECT_EQ(head->ReadHead([](ZrXHeader&) { return true; }), ZrReadResult::kComplete);
  return head;
}

// Every block in order, name<mimetype>=content ("-" without content), then its part head.
std::string Dump(const ZrXHeader& head) {
  std::ostringstream out;
  for (std::size_t i = 0; i < head.blocks.size(); ++i) {
    const ZrHTTPMessageBlock& block = *head.blocks[i];
    const auto indexed = head.byPosition.find(std::to_string(i));
    EXPECT_TRUE(indexed != head.byPosition.end() && indexed->second == &block);
    out << (i == 0 ? "" : " | ") << block.Name();
    const std::string& type = block.attributes.at("mimetype");
    if (type != "application/octet-stream") out << "<" << type << ">";
    out << "=" << (block.content ? std::string(block.Text()) : "-");
    for (const auto& [name, values] : block.partHeaders) {
      for (const std::string& value : values) out << " [" << name << ": " << value << "]";
    }
  }
  return out.str();
}

TEST(FormBody, DecodesUrlEncodedFields) {
  const std::pair<const char*, std::string> kCases[] = {
      {"a=1&b=x+y%21&c", "a=1 | b=x y!"},
      {"", ""},
      {"&&=&a=", "= | a="},
      {"a=b=c&%3d=%26", "a=b=c | ==&"},
      {"a=%4&b=%&c=%g1&d=%2B+", "a=%4 | b=% | c=%g1 | d=+ "},
      {"n+m=%00%ff", std::string("n m=\0\xff", 6)}};
  for (const auto& [body, dump] : kCases) {
    const auto request = Request("application/x-www-form-urlencoded; charset=UTF-8", body);
    EXPECT_EQ(ParseFormBody(*request), ZrReadResult::kComplete);
    EXPECT_EQ(Dump(*request), dump);
    EXPECT_EQ(request->body->Unread(), body);  // still there for a program
  }
}

TEST(FormBody, DecodesMultipart) {
  const struct {
    const char* name;
    std::string body;  // "|" stands for a line end
    const char* dump;
    const char* error = "";
  } kCases[] = {
      {"field and file",
       "--X|Content-Disposition: form-data; name=\"a\"||1|--X|content-disposition: form-data; "
       "name=\"file\"; filename=\"p name=x.png\"|CONTENT-TYPE:  image/png |||\x01|-|X||--X--|",
       "a=1 [content-disposition: form-data; name=\"a\"] | file<image/png>=\r\n\x01\r\n-\r\nX\r\n "
       "[content-disposition: form-data; name=\"file\"; filename=\"p name=x.png\"] "
       "[content-type: image/png]"},
      {"before the first delimiter and behind the last", "junk|--X||c|--Xignored|--Xrest",
       "=c | =-"},
      {"no second delimiter", "--X|Content-Disposition: form-data; name=\"a\"||1|", ""},
      {"hyphens before the delimiter", "---X||c---X", "=c-"},
      {"empty contents", "--X||--X|||--X|A: b|||--X", "=- | =- | =- [a: b]"},
      {"no empty line", "--X|A: b|C: d|--X", "=- [a: b] [c: d]"},
      {"names in other forms",
       "--X|content-disposition: form-data; name=plain; x||1|--X|content-disposition: "
       "name=\"a\"||2|--X|content-disposition: form-data;  name=\"open||3|--X",
       "plain=1 [content-disposition: form-data; name=plain; x] | =2 [content-disposition: "
       "name=\"a\"] | open=3 [content-disposition: form-data;  name=\"open]"},
      {"head lines without use", "--X|oops|A:|: b|  A  :  c  d  ||1|--X", "=1 [a: c  d]",
       "oh oh ... problem...\n"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    std::string body;
    for (const char byte : c.body) body += byte == '|' ? "\r\n" : std::string(1, byte);
    testing::internal::CaptureStderr();
    const auto request = Request("multipart/form-data; boundary=X", body);
    EXPECT_EQ(ParseFormBody(*request), ZrReadResult::kComplete);
    EXPECT_EQ(zrtest::CapturedErrors(), c.error);
    EXPECT_EQ(Dump(*request), c.dump);
  }
}

TEST(FormBody, OfTwoFieldsTheLaterCountsAndOfABodyOnlyAWholeOneOfAKnownType) {
  const auto form = Request("application/x-www-form-urlencoded", "a=2&a=3&=x", "/?a=1");
  form->body->Append("&");
  EXPECT_EQ(ParseFormBody(*form), ZrReadResult::kRejected);
  const std::string body = form->body->Take();
  form->body->Append(body.substr(0, 9));
  EXPECT_EQ(ParseFormBody(*form), ZrReadResult::kIncomplete);
  EXPECT_EQ(form->blocks.size(), 1u);  // the query's
  form->body->Append("x");
  EXPECT_EQ(ParseFormBody(*form), ZrReadResult::kComplete);
  EXPECT_EQ(zr::FieldText(form->queryFields, "a"), "1");
  EXPECT_EQ(zr::FieldText(form->allFields, "a"), "3");
  testing::internal::CaptureStderr();
  EXPECT_EQ(ParseFormBody(*Request("text/plain", "a=1")), ZrReadResult::kComplete);
  EXPECT_EQ(zrtest::CapturedErrors(), "content type not defined (text/plain)\n");
}

// Each of these took minutes or gigabytes in a reader that searches or stores carelessly.
TEST(FormBody, HostileBodiesCostNoMoreThanOthers) {
  constexpr std::size_t kSize = 10 * 1024 * 1024;
  const auto repeat = [](std::string_view piece, std::size_t size) {
    std::string text;
    while (text.size() < size) text += piece;
    return text;
  };
  const std::string form = "application/x-www-form-urlencoded";
  const std::string multipart = "multipart/form-data; boundary=";
  const std::string longBoundary(60'000, '-');
  const struct {
    const char* name;
    std::string type;
    std::string body;
    std::size_t blocks;
    std::size_t lines = 0;  // of the first one's head
  } kCases[] = {
      {"fields without end", form, repeat("=&", kSize), zr::kMaxFormFields},
      {"empty boundary", multipart, repeat("--", kSize), zr::kMaxFormFields},
      {"almost the boundary", multipart + longBoundary + "b", repeat(longBoundary + "--a", kSize),
       0},
      {"delimiters", multipart + "b", repeat("--b", kSize), zr::kMaxFormFields},
      {"head lines", multipart + "b", "--b\r\n" + repeat("a: x\r\n", kSize) + "--b", 1,
       zr::kMaxPartHeadLines},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    const auto request = Request(c.type, c.body);
    EXPECT_EQ(ParseFormBody(*request), ZrReadResult::kComplete);
    EXPECT_EQ(request->blocks.size(), c.blocks);
    EXPECT_EQ(request->blocks.empty() ? 0 : request->blocks[0]->partHeaders["a"].size(), c.lines);
  }
}

}  // namespace
