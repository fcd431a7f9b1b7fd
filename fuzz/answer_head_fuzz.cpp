// An answer that arrives in pieces is the answer that arrives at once: the same head, body, rest
// and verdict. The first byte of the input gives the size of the pieces, the second how the
// connection ends, the rest is what the peer sends.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "fuzz/check.h"
#include "http/answer_reader.h"
#include "http/message_head.h"

namespace {

using Line = ZrAnswerReader::Line;
using Result = ZrAnswerReader::Result;

struct Outcome {
  ZrAnswerReader reader;
  std::shared_ptr<ZrXHeader> head;
  ZrStringBuf rest;
  Result result = Result::kIncomplete;
  int callbacks = 0;
  int interim = 0;
};

void Step(Outcome& outcome, Line line) {
  for (;;) {
    if (!outcome.head)
      outcome.head = zr::MakeJob<ZrXHeader>(ZrMessageType::kPost, zr::kProtocolHttp);
    outcome.result = outcome.reader.Read(*outcome.head, outcome.rest, line, [&](ZrXHeader&) {
      ++outcome.callbacks;
      return true;
    });
    if (outcome.result != Result::kInterim) return;
    ++outcome.interim;
    outcome.head = nullptr;
  }
}

std::unique_ptr<Outcome> Read(std::string_view bytes, std::size_t pieceSize, Line end) {
  auto outcome = std::make_unique<Outcome>();
  while (!bytes.empty() && outcome->result == Result::kIncomplete) {
    outcome->rest.Append(bytes.substr(0, pieceSize));
    bytes.remove_prefix(std::min(pieceSize, bytes.size()));
    Step(*outcome, Line::kOpen);
  }
  if (outcome->result == Result::kIncomplete) Step(*outcome, end);
  ZR_FUZZ_CHECK(outcome->result == Result::kComplete || outcome->result == Result::kUnreadable);
  outcome->rest.Append(bytes);
  return outcome;
}

std::string Dump(const Outcome& outcome) {
  const ZrXHeader& head = *outcome.head;
  std::string text = std::to_string(head.status);
  for (const auto& [name, values] : head.headers)
    for (const std::string_view value : values) text.append("\n").append(name).append(value);
  text.append(outcome.reader.KeepsConnection() ? "\n\nkeep\n" : "\n\nclose\n");
  return text.append(head.body->Unread()).append("\n\n").append(outcome.rest.Unread());
}

void ExpectSame(const Outcome& a, const Outcome& b) {
  ZR_FUZZ_CHECK(a.result == b.result);
  ZR_FUZZ_CHECK(a.interim == b.interim);
  ZR_FUZZ_CHECK(a.callbacks == b.callbacks && a.callbacks <= 1);
  if (a.result == Result::kUnreadable) {
    ZR_FUZZ_CHECK(*a.reader.Problem() != '\0');
    ZR_FUZZ_CHECK(std::string_view(a.reader.Problem()) == b.reader.Problem());
    return;
  }
  ZR_FUZZ_CHECK(a.callbacks == 1);
  ZR_FUZZ_CHECK(Dump(a) == Dump(b));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2) return 0;
  const Line end = data[1] % 2 == 0 ? Line::kEnded : Line::kBroken;
  const std::string_view bytes(reinterpret_cast<const char*>(data) + 2, size - 2);
  const auto whole = Read(bytes, bytes.size() + 1, end);
  ExpectSame(*whole, *Read(bytes, std::size_t{data[0]} + 1, end));
  if (size < 4096) ExpectSame(*whole, *Read(bytes, 1, end));
  return 0;
}
