// A head that arrives in pieces is the head that arrives at once, and its answer has one head, in
// both semantics; and what both take is one request to both. The first byte of the input gives the
// size of the pieces, the rest is the message.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/check.h"
#include "http/message_head.h"
#include "http/response_head.h"

namespace {

struct Outcome {
  std::shared_ptr<ZrXHeader> head;
  ZrReadResult result;
  int callbacks;
};

Outcome Read(std::string_view bytes, std::size_t pieceSize) {
  Outcome outcome{zr::MakeJob<ZrXHeader>(ZrMessageType::kPost, zr::kProtocolHttp),
                  ZrReadResult::kIncomplete, 0};
  outcome.head->body = std::make_unique<ZrStringBuf>();
  do {
    outcome.head->body->Append(bytes.substr(0, pieceSize));
    bytes.remove_prefix(std::min(pieceSize, bytes.size()));
    outcome.result = outcome.head->ReadHead([&outcome](ZrXHeader&) {
      ++outcome.callbacks;
      return true;
    });
  } while (!bytes.empty());
  return outcome;
}

std::string Dump(const ZrXHeader& head) {
  std::string text = head.path + "\n" + head.query + "\n" + std::to_string(head.declaredLength);
  for (const auto& [name, values] : head.headers)
    for (const std::string_view value : values) text.append("\n").append(name).append(value);
  for (const auto& block : head.blocks) text.append("\n").append(block->Text());
  return text.append("\n\n").append(head.body->Unread());
}

void ExpectSame(const Outcome& a, const Outcome& b) {
  ZR_FUZZ_CHECK(a.result == b.result);
  ZR_FUZZ_CHECK(a.callbacks == b.callbacks && a.callbacks <= 1);
  ZR_FUZZ_CHECK(a.head->InHead() == b.head->InHead());
  // What was read before a limit was passed depends on the pieces, and goes with the connection.
  if (a.result == ZrReadResult::kRejected && a.head->InHead()) return;
  ZR_FUZZ_CHECK(a.head->kind == b.head->kind && a.head->messageType == b.head->messageType);
  ZR_FUZZ_CHECK(a.head->closeRequested == b.head->closeRequested);
  ZR_FUZZ_CHECK(Dump(*a.head) == Dump(*b.head));
}

// A message of standard semantics up to its end, with what is behind it.
struct Standard {
  std::shared_ptr<ZrXHeader> head = zr::MakeJob<ZrXHeader>(ZrMessageType::kPost, zr::kProtocolHttp);
  ZrReadStep step = ZrReadStep::kHead;
  std::string rest;
};

Standard ReadStandard(std::string_view bytes, std::size_t pieceSize) {
  Standard outcome;
  outcome.head->semantics = &ZrSemantics::Standard();
  outcome.head->body = std::make_unique<ZrStringBuf>();
  while (!bytes.empty() && outcome.step != ZrReadStep::kComplete) {
    outcome.head->Input().Append(bytes.substr(0, pieceSize));
    bytes.remove_prefix(std::min(pieceSize, bytes.size()));
    outcome.step = ZrSemantics::Standard().Read(*outcome.head, [](ZrXHeader&) { return true; });
    if (outcome.step == ZrReadStep::kContinue) outcome.step = ZrReadStep::kBody;
  }
  if (outcome.head->surplus) outcome.rest = outcome.head->surplus->Take();
  outcome.rest.append(bytes);
  return outcome;
}

void ExpectSame(const Standard& a, const Standard& b) {
  ZR_FUZZ_CHECK(a.step == b.step && a.head->refusal == b.head->refusal);
  if (a.step != ZrReadStep::kComplete || a.head->refusal != 0) return;
  ZR_FUZZ_CHECK(Dump(*a.head) == Dump(*b.head) && a.rest == b.rest);
}

// One that is neither refused nor beyond the minimal dialect.
bool IsShared(const Standard& read, std::string_view bytes) {
  return read.step == ZrReadStep::kComplete && read.head->refusal == 0 &&
         (read.head->method == ZrMethod::kGet || read.head->method == ZrMethod::kPost) &&
         !read.head->headers.contains("transfer-encoding") &&
         read.head->reading.lineEnd == ZrMessageReading::LineEnd::kCrLf &&
         !bytes.starts_with("\r") && !bytes.starts_with("\n");
}

// Values of a field as both sets of rules see them: without blanks, colons in front, empty ones.
std::vector<std::string> SharedValues(const ZrXHeader& head, std::string_view name) {
  std::vector<std::string> shared;
  for (const std::string_view sent : head.headers[name]) {
    std::string value(sent);
    std::erase_if(value, [](char c) { return c == ' ' || c == '\t'; });
    value.erase(0, value.find_first_not_of(':'));
    if (!value.empty()) shared.push_back(value);
  }
  return shared;
}

void ExpectOneRequest(const ZrXHeader& minimal, const ZrXHeader& standard) {
  ZR_FUZZ_CHECK(minimal.kind == ZrMessageKind::kRequest);
  ZR_FUZZ_CHECK(minimal.method == standard.method);
  ZR_FUZZ_CHECK(minimal.declaredLength == standard.declaredLength);
  for (const auto& [name, values] : standard.headers)
    if (name != zr::kFirstLine)
      ZR_FUZZ_CHECK(SharedValues(minimal, name) == SharedValues(standard, name));
  const std::string_view path = minimal.path;
  if (!path.starts_with('/')) return;
  if (minimal.method == ZrMethod::kGet) ZR_FUZZ_CHECK(minimal.query == standard.query);
  if (path.find('%') == path.npos && path.find("/.") == path.npos)
    ZR_FUZZ_CHECK(path == standard.path);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::string_view message(reinterpret_cast<const char*>(data) + 1, size - 1);
  const Outcome whole = Read(message, message.size() + 1);
  ExpectSame(whole, Read(message, std::size_t{data[0]} + 1));
  if (size < 4096) ExpectSame(whole, Read(message, 1));

  const Standard standard = ReadStandard(message, message.size() + 1);
  ExpectSame(standard, ReadStandard(message, std::size_t{data[0]} + 1));
  if (IsShared(standard, message)) {
    ExpectOneRequest(*whole.head, *standard.head);
    if (whole.result == ZrReadResult::kComplete && standard.rest.empty())
      ZR_FUZZ_CHECK(whole.head->body->Unread() == standard.head->body->Unread());
  }

  const auto answer = whole.head->MakeResponse();
  answer->SetBodyText("text");
  ZrStringBuf out;
  ZR_FUZZ_CHECK(answer->WriteHead(out));
  ZR_FUZZ_CHECK(out.Unread().find("\r\n\r\n") == out.Size() - 4);
  return 0;
}
