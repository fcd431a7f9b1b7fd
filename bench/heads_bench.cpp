// What a request pays for its message heads: reading one, also when it comes in small pieces,
// making and writing the answer's, the line of the log, and decoding form bodies.

#include <benchmark/benchmark.h>

#include <functional>
#include <string>

#include "base/workbench.h"
#include "http/access_log.h"
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
    "Sec-Fetch-Dest: document\r\n"
    "Sec-Fetch-Mode: navigate\r\n"
    "Sec-Fetch-Site: same-origin\r\n"
    "Cache-Control: max-age=0\r\n"
    "\r\n";
// What a load client sends.
const std::string kSmallHead = "GET /small.bin HTTP/1.1\r\nHost: 127.0.0.1:8080\r\n\r\n";

const std::function<bool(ZrXHeader&)> kAccept = [](ZrXHeader&) { return true; };

std::shared_ptr<ZrXHeader> NewRequest(const ZrSemantics& semantics = ZrSemantics::Minimal()) {
  auto head = zr::MakeJob<ZrXHeader>(ZrMessageType::kPost, zr::kProtocolHttp);
  head->semantics = &semantics;
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

// All at once, by the rules of a server, on a thread that has a workbench as theirs have.
void ReadRequest(benchmark::State& state, const std::string& text, const ZrSemantics& semantics) {
  const ZrWorkbench workbench;
  for (auto _ : state) {
    const auto head = NewRequest(semantics);
    head->body->Append(text);
    if (semantics.Read(*head, kAccept) != ZrReadStep::kComplete) state.SkipWithError("not read");
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(text.size()) * state.iterations());
}
BENCHMARK_CAPTURE(ReadRequest, browser_minimal, kBrowserHead, ZrSemantics::Minimal());
BENCHMARK_CAPTURE(ReadRequest, browser_standard, kBrowserHead, ZrSemantics::Standard());
BENCHMARK_CAPTURE(ReadRequest, small_minimal, kSmallHead, ZrSemantics::Minimal());
BENCHMARK_CAPTURE(ReadRequest, small_standard, kSmallHead, ZrSemantics::Standard());

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

// The text of the head alone, as often as wanted.
void WriteHead(benchmark::State& state, const ZrSemantics& semantics) {
  const ZrWorkbench workbench;
  const auto request = NewRequest(semantics);
  request->body->Append(kBrowserHead);
  semantics.Read(*request, kAccept);
  const auto answer = request->MakeResponse();
  answer->SetStatus(200);
  answer->SetFileBody("/srv/www/docs/index.html", 4096);
  answer->SetState(zr::kHeadStateComplete);
  std::int64_t bytes = 0;
  for (auto _ : state) {
    ZrStringBuf out;
    if (!answer->WriteHead(out)) state.SkipWithError("not written");
    bytes += static_cast<std::int64_t>(out.Size());
  }
  state.SetBytesProcessed(bytes);
}
BENCHMARK_CAPTURE(WriteHead, minimal, ZrSemantics::Minimal());
BENCHMARK_CAPTURE(WriteHead, standard, ZrSemantics::Standard());

void LogLine(benchmark::State& state, zr::AccessLogFormat format) {
  const zr::AccessLogEntry entry{.remote = "127.0.0.1",
                                 .scheme = "http",
                                 .created = std::int64_t{784'111'777} * 10'000'000,
                                 .requestText = "GET /docs/index.html?lang=en&q=a%20b",
                                 .version = "HTTP/1.1",
                                 .status = 200,
                                 .bytes = 4176,
                                 .headBytes = 80,
                                 .referer = "https://www.example.org:8443/docs/",
                                 .userAgent = "Mozilla/5.0 (X11; Linux x86_64; rv:128.0) Gecko"};
  std::string line;
  std::int64_t bytes = 0;
  for (auto _ : state) {
    line.clear();
    zr::AppendAccessLogLine(line, entry, format);
    bytes += static_cast<std::int64_t>(line.size());
  }
  state.SetBytesProcessed(bytes);
}
BENCHMARK_CAPTURE(LogLine, velkoro, zr::AccessLogFormat::kVelkoro);
BENCHMARK_CAPTURE(LogLine, combined, zr::AccessLogFormat::kCombined);

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
