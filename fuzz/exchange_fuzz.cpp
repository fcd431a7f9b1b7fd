// Whole exchanges: the bytes of one client go to a server over a real line, whole and in pieces,
// with an end or a reset behind them. What comes back is a row of well-formed answers, one for each
// request that the handler was given and no more than requests were sent; the pieces make no
// difference; and nothing is left.
//
// The first byte of the input says how it is cut (0: not at all), the second how the line ends.

#include <atomic>
#include <charconv>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "fuzz/check.h"
#include "http/field_list.h"
#include "http/protocol_kind.h"
#include "tests/support/raw_client.h"
#include "tests/support/server_bed.h"
#include "tests/support/unread_by_peer.h"
#include "tests/support/wait.h"

namespace {

class Server {
 public:
  Server() {
    bed_.onMessage = [this](zrtest::ServerBed& bed, const zrtest::ServerBed::Message& message) {
      ++handled_;
      bed.Answer(*message, message->path + "|" + std::string(message->body->Unread()));
      return 1;
    };
    // Of hours of reports only the port is kept.
    bed_.callback = [keep = bed_.callback](ZrServerCallback_t& record) {
      return record.kind != ZrServerCallback_t::kListening || keep(record);
    };
    port_ = bed_.Open(zr::kProtocolHttp);
  }

  /// What comes back for the bytes. Without an end in order nothing is read.
  std::string Exchange(std::string_view bytes, unsigned cut, bool reset, std::size_t& handled) {
    handled_ = 0;
    std::string answers;
    {
      zrtest::RawClient client = Connect();
      for (unsigned state = cut; !bytes.empty(); state = state * 1103515245 + 12345) {
        const std::size_t piece = cut == 0 ? bytes.size() : 1 + (state >> 16) % (cut * 3);
        // A server that has closed takes no more; so it is with the whole as well.
        if (!client.Send(bytes.substr(0, piece))) break;
        if (cut != 0) ZR_FUZZ_CHECK(zrtest::WaitUntilTaken(client.Descriptor()));
        bytes.remove_prefix(std::min(piece, bytes.size()));
      }
      if (reset) {
        client.Reset();
      } else {
        client.FinishSending();
        bool ended = false;
        answers = client.ReadToEnd(&ended);
        ZR_FUZZ_CHECK(ended || !bytes.empty());
      }
    }
    // A request of a client that has gone may still be in its handler's hands; one queue for all.
    {
      zrtest::RawClient last(port_);
      bool ended = false;
      last.Send("GET /last HTTP/1.1\r\nHost: h\r\n\r\n");
      last.FinishSending();
      ZR_FUZZ_CHECK(!last.ReadToEnd(&ended).empty() && ended);
    }
    ZR_FUZZ_CHECK(bed_.WaitForConnections(0));
    ZR_FUZZ_CHECK(zrtest::WaitFor([this] { return bed_.transceiver.Memory()->Used() == 0; }));
    handled = handled_ - 1;
    return answers;
  }

 private:
  // A client's port is used again after a minute only, so after many runs there may be none.
  zrtest::RawClient Connect() {
    std::optional<zrtest::RawClient> client;
    ZR_FUZZ_CHECK(zrtest::WaitFor(
        [&] {
          client.emplace(port_);
          return client->Connected();
        },
        std::chrono::seconds(90)));
    return std::move(*client);
  }

  std::atomic<std::size_t> handled_{0};
  zrtest::ServerBed bed_;
  int port_ = 0;
};

/// Takes the answers apart; each has exactly the length that it announces.
std::size_t CountAnswers(std::string_view bytes) {
  std::size_t count = 0;
  for (; !bytes.empty(); ++count) {
    ZR_FUZZ_CHECK(bytes.starts_with("HTTP/1.1 "));
    const std::size_t head = bytes.find("\r\n\r\n");
    constexpr std::string_view kLength = "Content-Length: ";
    const std::size_t length = bytes.find(kLength);
    ZR_FUZZ_CHECK(head != std::string_view::npos && length < head);
    std::size_t size = 0;
    const char* const digits = bytes.data() + length + kLength.size();
    ZR_FUZZ_CHECK(std::from_chars(digits, bytes.data() + head, size).ec == std::errc());
    ZR_FUZZ_CHECK(bytes.size() >= head + 4 + size);
    bytes.remove_prefix(head + 4 + size);
  }
  return count;
}

/// How often the word stands there, in letters of any case: so methods are read.
std::size_t CountOf(std::string_view text, std::string_view word) {
  std::size_t count = 0;
  for (; text.size() >= word.size(); text.remove_prefix(1))
    if (zr::LowerCase(text.substr(0, word.size())) == word) ++count;
  return count;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2 || size > 20'000) return 0;
  static Server server;
  const unsigned cut = data[0];
  const bool reset = (data[1] & 1) != 0;
  const std::string_view bytes(reinterpret_cast<const char*>(data) + 2, size - 2);
  std::size_t handled = 0;
  const std::string whole = server.Exchange(bytes, 0, reset, handled);
  // These are methods of the written dialect, too.
  const std::size_t others = CountOf(bytes, "none") + CountOf(bytes, "answer");
  ZR_FUZZ_CHECK(handled <= CountOf(bytes, "get") + CountOf(bytes, "post") + others);
  if (!reset) ZR_FUZZ_CHECK(CountAnswers(whole) == handled);
  std::size_t handledInPieces = 0;
  const std::string pieces = server.Exchange(bytes, cut, reset, handledInPieces);
  if (reset) return 0;
  ZR_FUZZ_CHECK(CountAnswers(pieces) == handledInPieces);
  // Where a body ends may depend on what has arrived with its head: so it is written.
  if (CountOf(bytes, "post") + others + CountOf(bytes, "content-length") == 0)
    ZR_FUZZ_CHECK(pieces == whole);
  return 0;
}
