#include "http/file_answer.h"

#include <gtest/gtest.h>

namespace {

using Fields = std::vector<std::pair<const char*, std::string>>;

constexpr std::int64_t kModified = 784111777;
constexpr const char* kDate = "Sun, 06 Nov 1994 08:49:37 GMT";

/// The fields of an answer, a line each.
std::string Lines(const ZrFileHead& file, const ZrFileAnswer& answer) {
  std::string lines = file.fields.substr(0, answer.fields);
  std::erase(lines, '\r');
  for (const auto& [name, value] : answer.more) lines += std::string(name) + ": " + value + "\n";
  return lines;
}

TEST(FileAnswer, PreconditionsComeBeforeRanges) {
  const ZrFileFacts file{.version = {.size = 100, .modified = kModified * 1'000'000'000 + 999},
                         .contentType = "text/x"};
  const std::string tag = zr::EntityTag(file.version);
  const struct {
    const char* name;
    Fields request;
    std::uint64_t status;
    std::uint64_t length;
    const char* range;
    ZrMethod method = ZrMethod::kGet;
  } cases[] = {
      {"range", {{"range", "bytes=10-19"}}, 206, 10, "bytes 10-19/100"},
      {"outside", {{"range", "bytes=100-"}}, 416, 0, "bytes */100"},
      {"two fields", {{"range", "bytes=0-0"}, {"range", "bytes=1-1"}}, 200, 100, ""},
      {"fresh", {{"if-none-match", tag}, {"range", "bytes=0-0"}}, 304, 0, ""},
      {"stale", {{"if-none-match", "\"x\""}, {"range", "bytes=0-0"}}, 206, 1, "bytes 0-0/100"},
      {"failed", {{"if-match", "\"x\""}, {"range", "bytes=100-"}}, 412, 0, ""},
      {"posted", {{"if-none-match", tag}}, 412, 0, "", ZrMethod::kPost},
      {"posted range", {{"range", "bytes=0-0"}}, 200, 100, "", ZrMethod::kPost},
      {"same version", {{"if-range", tag}, {"range", "bytes=0-0"}}, 206, 1, "bytes 0-0/100"},
      {"other version", {{"if-range", "\"x\""}, {"range", "bytes=100-"}}, 200, 100, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    ZrHeaderFields request;
    for (const auto& [name, value] : c.request) request.Append(name, value);
    const ZrFileHead head = zr::MakeFileHead(file, kModified + 60);
    const ZrFileAnswer answer = zr::AnswerForFile(c.method, request, head, kModified + 60, "mark");
    EXPECT_EQ(answer.status, c.status);
    EXPECT_EQ(answer.length, c.length);
    const std::string lines = Lines(head, answer);
    const auto has = [&lines](const std::string& text) { return lines.find(text) != lines.npos; };
    const std::string version = "ETag: " + tag + "\nLast-Modified: " + kDate + "\n";
    EXPECT_EQ(lines.starts_with(version), c.status != 412) << lines;
    EXPECT_EQ(has("Content-Type: text/x\n"), c.length > 0) << lines;
    EXPECT_EQ(has("Content-Range: "), *c.range != '\0') << lines;
    EXPECT_TRUE(has(c.range)) << lines;
  }
}

TEST(FileAnswer, CodedFilesAndSeveralRangesSaySo) {
  const ZrFileFacts file{.version = {.size = 10, .modified = (kModified + 1000) * 1'000'000'000},
                         .contentType = "text/x",
                         .varies = true};
  ZrHeaderFields request;
  request.Append("range", "bytes=0-1,-2");
  const ZrFileHead head = zr::MakeFileHead(file, kModified);
  const ZrFileAnswer answer = zr::AnswerForFile(ZrMethod::kGet, request, head, kModified, "mark");
  // A time that is still to come is told as now.
  EXPECT_EQ(Lines(head, answer), "ETag: " + zr::EntityTag(file.version) +
                                     "\nLast-Modified: " + kDate +
                                     "\nVary: Accept-Encoding\nAccept-Ranges: bytes\n"
                                     "Content-Type: multipart/byteranges; boundary=mark\n");
  EXPECT_EQ(answer.status, 206U);
  std::string sent;
  for (const auto& part : answer.several.parts) {
    sent += part.head + std::string("0123456789").substr(part.range.first, part.range.Length());
  }
  sent += answer.several.end;
  EXPECT_EQ(
      sent,
      "--mark\r\nContent-Type: text/x\r\nContent-Range: bytes 0-1/10\r\n\r\n01\r\n"
      "--mark\r\nContent-Type: text/x\r\nContent-Range: bytes 8-9/10\r\n\r\n89\r\n--mark--\r\n");
  EXPECT_EQ(answer.length, sent.size());

  // Parts are of the plain form only.
  ZrFileFacts coded = file;
  coded.coding = "br";
  const ZrFileHead codedHead = zr::MakeFileHead(coded, kModified);
  const ZrFileAnswer whole =
      zr::AnswerForFile(ZrMethod::kGet, request, codedHead, kModified, "mark");
  EXPECT_EQ(whole.status, 200U);
  EXPECT_EQ(whole.length, 10U);
  EXPECT_EQ(Lines(codedHead, whole), "ETag: " + zr::EntityTag(file.version, "br") +
                                         "\nLast-Modified: " + kDate +
                                         "\nVary: Accept-Encoding\nContent-Encoding: br\n"
                                         "Content-Type: text/x\n");
}

}  // namespace
