// A body in chunks that arrives in pieces is the one that arrives at once: the same data, rest and
// verdict. And data that is framed here comes back as it was. The first byte of the input gives the
// size of the pieces, the rest is the body.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "fuzz/check.h"
#include "http/chunked_decoder.h"

namespace {

struct Outcome {
  ZrChunkedDecoder decoder;
  ZrChunkedDecoder::Next next = ZrChunkedDecoder::Next::kIncomplete;
  ZrStringBuf rest;
  std::string data;
};

Outcome Read(std::string_view bytes, std::size_t pieceSize) {
  Outcome outcome;
  do {
    outcome.rest.Append(bytes.substr(0, pieceSize));
    bytes.remove_prefix(std::min(pieceSize, bytes.size()));
    while ((outcome.next = outcome.decoder.Read(outcome.rest)) == ZrChunkedDecoder::Next::kData) {
      const auto count = static_cast<std::size_t>(
          std::min<std::uint64_t>(outcome.decoder.Remaining(), outcome.rest.Size()));
      ZR_FUZZ_CHECK(count > 0);
      outcome.data.append(outcome.rest.Unread().substr(0, count));
      outcome.rest.Consume(count);
      outcome.decoder.Took(count);
    }
  } while (outcome.next == ZrChunkedDecoder::Next::kIncomplete && !bytes.empty());
  outcome.rest.Append(bytes);
  return outcome;
}

void ExpectSame(const Outcome& a, const Outcome& b) {
  ZR_FUZZ_CHECK(a.next == b.next);
  ZR_FUZZ_CHECK(a.data == b.data);
  if (a.next == ZrChunkedDecoder::Next::kEnd) ZR_FUZZ_CHECK(a.rest.Unread() == b.rest.Unread());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::size_t piece = std::size_t{data[0]} + 1;
  const std::string_view bytes(reinterpret_cast<const char*>(data) + 1, size - 1);
  const Outcome whole = Read(bytes, bytes.size() + 1);
  ExpectSame(whole, Read(bytes, piece));
  if (size < 4096) ExpectSame(whole, Read(bytes, 1));

  constexpr char kDigits[] = "0123456789abcdef";
  std::string framed;
  for (std::size_t at = 0; at < bytes.size(); at += piece) {
    const std::string_view part = bytes.substr(at, piece);
    framed.append(1, kDigits[part.size() >> 8]).append(1, kDigits[part.size() >> 4 & 15]);
    framed.append(1, kDigits[part.size() & 15]).append("\r\n").append(part).append("\r\n");
  }
  const Outcome back = Read(framed + "0\r\n\r\nnext", 7);
  ZR_FUZZ_CHECK(back.next == ZrChunkedDecoder::Next::kEnd);
  ZR_FUZZ_CHECK(back.data == bytes && back.rest.Unread() == "next");
  return 0;
}
