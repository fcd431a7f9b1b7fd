#include "transceiver/answer_stream.h"

#include <gtest/gtest.h>

#include <semaphore>

#include "tests/support/raw_client.h"
#include "tests/support/server_bed.h"

namespace {

using namespace zrtest;

// A server of standard semantics whose requests wait here to be answered by streams.
struct Streaming {
  Streaming() {
    bed.onMessage = [this](ServerBed&, const ServerBed::Message& message) {
      request = message;
      arrived.release();
      return 1;
    };
    port = bed.Open(zr::kProtocolHttp, {{"semantics", "standard"}});
  }
  /// The stream for the request that these bytes are.
  std::unique_ptr<ZrAnswerStream> Ask(RawClient& client, const std::string& bytes) {
    client.Send(bytes);
    EXPECT_TRUE(arrived.try_acquire_for(std::chrono::seconds(20)));
    return std::make_unique<ZrAnswerStream>(bed.handler, *request, ZrAnswerStream::Notices());
  }
  std::shared_ptr<ZrXHeader> Head() {
    const std::shared_ptr<ZrXHeader> head = request->MakeResponse();
    head->SetStatus(200);
    return head;
  }

  ServerBed::Message request;
  std::counting_semaphore<> arrived{0};
  ServerBed bed;
  int port = 0;
};

TEST(AnswerStream, MarksItsEndAsTheRequestNeedsItAndNeverFalsely) {
  const std::string get = "GET / HTTP/1.1\r\nHost: h\r\n\r\n";
  const std::string old = "GET / HTTP/1.0\r\n\r\n";
  constexpr std::uint64_t kUnknown = ~std::uint64_t{0};
  enum class By { kEnd, kAbort, kDestructor };
  struct Case {
    const char* name;
    std::string request;
    std::uint64_t length;
    By by;
    std::string body;  // as it is on the line
    bool stays;
    bool reset = false;
  };
  const Case cases[] = {
      {"chunks", get, kUnknown, By::kEnd, "3\r\none\r\n3\r\ntwo\r\n0\r\n\r\n", true},
      {"chunks, aborted", get, kUnknown, By::kAbort, "3\r\none\r\n3\r\ntwo\r\n", false},
      {"chunks, left", get, kUnknown, By::kDestructor, "3\r\none\r\n3\r\ntwo\r\n", false},
      {"length", get, 6, By::kEnd, "onetwo", true},
      {"length, more", get, 4, By::kEnd, "onet", true},
      {"length, less", get, 9, By::kEnd, "onetwo", false},
      {"HEAD", "HEAD / HTTP/1.1\r\nHost: h\r\n\r\n", kUnknown, By::kEnd, "", true},
      {"HEAD, aborted", "HEAD / HTTP/1.1\r\nHost: h\r\n\r\n", 6, By::kAbort, "", true},
      {"1.0", old, kUnknown, By::kEnd, "onetwo", false},
      {"1.0, aborted", old, kUnknown, By::kAbort, "", false, true},
      {"1.0, length", "GET / HTTP/1.0\r\nConnection: keep-alive\r\n\r\n", 6, By::kEnd, "onetwo",
       true},
  };
  Streaming server;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    RawClient client(server.port);
    auto stream = server.Ask(client, c.request);
    const auto head = server.Head();
    head->lengthKnown = c.length != kUnknown;
    if (head->lengthKnown) head->contentLength = c.length;
    ASSERT_TRUE(stream->Begin(head));
    if (stream->Write("one")) stream->Write("two");
    if (c.by == By::kEnd) stream->End();
    if (c.by == By::kAbort) stream->Abort();
    stream = nullptr;
    // The connection goes on with its next request, or it does not.
    if (c.stays) {
      server.Ask(client, "GET /next HTTP/1.1\r\nHost: h\r\nConnection: close\r\n\r\n")->Abort();
      const auto last = server.Head();
      last->body = std::make_unique<ZrStringBuf>("next");
      server.bed.Send(*server.request, last);
    }
    bool ended = false;
    const std::string all = client.ReadToEnd(&ended);
    EXPECT_EQ(ended, !c.reset);
    if (c.reset) continue;
    const std::string answer = all.substr(0, all.find("HTTP/1.1", 1));
    EXPECT_EQ(answer.substr(answer.find("\r\n\r\n") + 4), c.body) << all;
    EXPECT_EQ(all.ends_with("next"), c.stays) << all;
  }
  // One line of the log for each answer, whole or not.
  EXPECT_TRUE(WaitFor([&] {
    return server.bed.Records(ZrServerCallback_t::kMessageLogged).size() == std::size(cases) + 6;
  }));
}

TEST(AnswerStream, MayOutliveItsServer) {
  std::unique_ptr<ZrAnswerStream> stream;
  std::unique_ptr<RawClient> client;
  {
    Streaming server;
    client = std::make_unique<RawClient>(server.port);
    stream = server.Ask(*client, "GET / HTTP/1.1\r\nHost: h\r\n\r\n");
    ASSERT_TRUE(stream->Begin(server.Head()));
  }
  EXPECT_FALSE(stream->Write("late"));
  stream->End();
}

}  // namespace
