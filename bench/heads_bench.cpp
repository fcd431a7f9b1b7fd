// What a request pays for its message heads: reading one, also when it comes in small pieces,
// making and writing the answer's, and decoding form bodies.

#include <benchmark/benchmark.h>

#include <functional>
#include <string>

#include "http/form_body.h"
#include "http/message_head.h"
#include "http/response_head.h"

namespace {

// What a current browser sends for a page.
const std::string kBrowserHead =
    "GET /docs/index.html?lang=en&q=a%20b HTTP/1.1\r\n"
    "Host: www.example.org:8443\r\n"
    "User-Agent: Mozilla/5.0 (X11; Linux x86_64; rv:128.0) Gecko/20100101 Firefox/128.0\r\n"
    "Accept: text/html,application/xhtml+xml,application/xml;q=0.9,*/*;q=0.8\r\n"
    "Accept-Language: en-US,en;q=0.5\r\n"
    "Accept-Encoding: gzip, deflate, br, zstd\r\n"
    "Connection: keep-alive\r\n"
    "Cookie: session=0123456789abcdef0123456789abcdef; theme=dark\r\n"
    "Upgrade-Insecure-Requests: 1\r\n"
    "Cache-Control: max-age=0\r\n"
    "\r\n";
const std::string kSmallHead = "GET / HTTP/1.1\r\nHost: localhost\r\nAccept: */*\r\n\r\n";

const std::function<bool(ZrXHeader&)> kAccept = [](ZrXHeader&) { return true; };

std::shared_ptr<ZrXHeader> NewRequest() {
  auto head = zr::MakeJob<ZrXHeader>(ZrMessageType::kPost, zr::kProtocolHttp);
  head->body = std::make_unique<ZrStringBuf>();
  return head;
}

void ReadHead(benchmark::State& state, const std::string& text, std::size_t pieceSize) {
  for (auto _ : state) {
    const auto head = NewRequest();
    ZrReadResult result{};
    for (std::size_t at = 0; at < text.size(); at += pieceSize) {
      head->body->Append(std::string_view(text).substr(at, pieceSize));
      result = head->ReadHead(kAccept);
    }
    if (result != ZrReadResult::kComplete) state.SkipWithError("not read");
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(text.size()) * state.iterations());
}

std::string LargestHead() {
  const std::string start = "GET / HTTP/1.1\r\na: ";
  return start + std::string(zr::kMaxHeadBytes - start.size() - 4, 'x') + "\r\n\r\n";
}

BENCHMARK_CAPTURE(ReadHead, browser, kBrowserHead, kBrowserHead.size());
BENCHMARK_CAPTURE(ReadHead, small, kSmallHead, kSmallHead.size());
BENCHMARK_CAPTURE(ReadHead, browser_byte_by_byte, kBrowserHead, 1);
BENCHMARK_CAPTURE(ReadHead, largest, LargestHead(), zr::kMaxHeadBytes);
BENCHMARK_CAPTURE(ReadHead, largest_byte_by_byte, LargestHead(), 1);

// A head and nothing else, the floor of the others.
void MakeHead(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(NewRequest());
}
BENCHMARK(MakeHead);

void AnswerRequest(benchmark::State& state) {
  const auto request = NewRequest();
  request->route = {"_job*012345601609804800", "_job*012345701609804800"};
  request->body->Append(kBrowserHead);
  request->ReadHead(kAccept);
  std::int64_t bytes = 0;
  for (auto _ : state) {
    const auto answer = request->MakeResponse();
    answer->SetStatus(200);
    answer->SetFileBody("/srv/www/docs/index.html", 4096);
    answer->SetState(zr::kHeadStateComplete);
    ZrStringBuf out;
    if (!answer->WriteHead(out)) state.SkipWithError("not written");
    bytes += static_cast<std::int64_t>(out.Size());
  }
  state.SetBytesProcessed(bytes);
}
BENCHMARK(AnswerRequest);

void DecodeForm(benchmark::State& state, std::string_view type, const std::string& body) {
  for (auto _ : state) {
    const auto head = NewRequest();
    head->headers.Append("content-type", type);
    head->declaredLength = body.size();
    head->body->Append(body);
    benchmark::DoNotOptimize(ParseFormBody(*head));
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(body.size()) * state.iterations());
}

std::string Upload(std::size_t size, const std::string& filler) {
  std::string body = "--B\r\nContent-Disposition: form-data; name=\"file\"\r\n\r\n";
  while (body.size() < size) body += filler;
  return body + "\r\n--B--\r\n";
}

constexpr std::size_t kUploadBytes = 4 * 1024 * 1024;
BENCHMARK_CAPTURE(DecodeForm, two_fields, "application/x-www-form-urlencoded",
                  "quarnid=chat&quarncommand=%26new");
BENCHMARK_CAPTURE(DecodeForm, upload, "multipart/form-data;boundary=B",
                  Upload(kUploadBytes, "some bytes of a file, 32 of them"));
BENCHMARK_CAPTURE(DecodeForm, upload_of_hyphens, "multipart/form-data;boundary=B",
                  Upload(kUploadBytes, "--------------------------------"));

}  // namespace
