// The head that a program writes before its page.

#include "http/program_head.h"

#include <gtest/gtest.h>

#include "http/message_head.h"
#include "http/response_head.h"

namespace {

TEST(ProgramHead, IsTakenWhenItIsOne) {
  const auto expect = [](const std::string& output, const std::string& head,
                         const std::string& page) {
    SCOPED_TRACE(output);
    const auto answer =
        zr::MakeJob<ZrXHeader>(ZrMessageType::kPost, zr::kProtocolHttp)->MakeResponse();
    answer->SetBodyText(output);
    answer->cgiHeadPending = true;
    ZrStringBuf written;
    EXPECT_TRUE(answer->WriteHead(written));
    EXPECT_EQ(written.Take(), "HTTP/1.1 200 OK\r\nServer: velkoro/1.28.1(96)\r\nContent-Length: " +
                                  std::to_string(page.size()) + "\r\n" + head);
    EXPECT_EQ(answer->TakeBody()->Take(), page);
  };
  expect("A: b\r\nC:d\r\n\r\npage\r\n\r\n", "A: b\r\nC:d\r\n\r\n", "page\r\n\r\n");
  expect("\r\npage\r\n\r\n", "\r\n", "page\r\n\r\n");
  // Its own length and coding are not those of the page.
  expect("content-LENGTH: 9\r\nA: b\r\nTransfer-Encoding: chunked\r\nContent-Length: 4\r\n\r\npage",
         "A: b\r\nContent-Length: 4\r\n\r\n", "page");
  for (const char* page : {"", "A: b\n\npage\r\n\r\nmore", "A: b\r\n c\r\n\r\n", "A: b\r\n",
                           "A: b\r\nC: d\nE: f\r\n\r\n", "A: b\r\n\npage\r\n\r\n",
                           "text\r\n\r\nmore", "A: b\rC: d\r\n\r\n"}) {
    expect(page, "\r\n", page);
  }
}

}  // namespace
