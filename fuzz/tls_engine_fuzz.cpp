// The server's TLS engine over a scripted line, against OpenSSL's own client: what the peer sends
// is cut, changed, ended and mixed with foreign bytes, what the server sends is refused or fails,
// all as the input says, one operation after the other. No step goes on for ever; a line that died
// is asked for nothing more and every step says so; what either side reads is what the other wrote.

#include <stdlib.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

#include "fuzz/check.h"
#include "net/certificate.h"
#include "net/tls_context.h"
#include "net/tls_engine.h"
#include "tests/support/scripted_line.h"
#include "tests/support/tls_peer.h"

namespace {

using zrtest::ScriptedLine;

ssl_ctx_st* Context() {
  static const ZrTlsContextPtr context = [] {
    std::string folder =
        (std::filesystem::temp_directory_path() / "tls_engine_fuzz_XXXXXX").string();
    ZR_FUZZ_CHECK(::mkdtemp(folder.data()) != nullptr);
    const auto files = zr::EnsureSelfSignedCertificate(folder + "/tls");
    ZrTlsContextPtr made = zr::MakeTlsServerContext(files.certificate, files.privateKey);
    std::filesystem::remove_all(folder);
    return made;
  }();
  return context.get();
}

class Exchange {
 public:
  explicit Exchange(std::string_view script) : script_(script) {}

  void Run() {
    while (!script_.empty()) {
      Operate(Next());
      CheckDeath();
    }
    line_.room = line_.piece = ScriptedLine::kUnlimited;
    for (int turn = 0; turn < 4; ++turn) ReadTurn();
    engine_.Flush();
    ReadOfPeer();
    CheckDeath();
  }

 private:
  std::size_t Next() {
    if (script_.empty()) return 0;
    const auto value = static_cast<unsigned char>(script_.front());
    script_.remove_prefix(1);
    return value;
  }
  std::string Text(std::size_t size) {
    std::string text(size, '\0');
    for (char& c : text) c = static_cast<char>('a' + written_++ % 26);
    return text;
  }

  void Operate(std::size_t operation) {
    switch (operation % 16) {
      case 0:
        peer_.Handshake();
        return ReadTurn();
      case 1: {
        const std::string text = Text(1 + 64 * Next());
        if (peer_.Send(text)) sentByPeer_ += text;
        return;
      }
      case 2:
        for (std::size_t left = Next(); left > 0; --left) peer_.UpdateKeys(left % 2 == 0);
        return;
      case 3: {
        const std::size_t size = 256 * Next();
        const std::string_view raw = script_.substr(0, size + Next());
        line_.input += raw;
        return script_.remove_prefix(std::min(raw.size(), script_.size()));
      }
      case 4:
        if (const std::size_t at = Next(); at < line_.input.size())
          line_.input[at] = static_cast<char>(line_.input[at] ^ static_cast<char>(1 << Next() % 8));
        return;
      case 5:
        return line_.input.resize(line_.input.size() - std::min(line_.input.size(), Next()));
      case 6:
        line_.ended = true;
        return;
      case 7: {
        const std::size_t room = Next();
        line_.room = room == 255 ? ScriptedLine::kUnlimited : room * 64;
        return;
      }
      case 8:
        line_.failSendAt = line_.sends + static_cast<int>(Next() % 16);
        return;
      case 9:
        line_.failReceiveAt = line_.receives + static_cast<int>(Next() % 16);
        return;
      case 10: {
        const std::size_t piece = Next();
        line_.piece = piece == 0 ? ScriptedLine::kUnlimited : piece;
        return;
      }
      case 11:
        return ReadTurn();
      case 12:
        return Write(1 + 128 * Next());
      case 13:
        return Note(engine_.Flush());
      case 14:
        return Note(engine_.Shutdown());
      case 15:
        ReadOfPeer();
        return Next() % 4 == 0 ? peer_.Goodbye() : void();
    }
  }

  void ReadTurn() {
    const int before = line_.receives;
    engine_.BeginTurn();
    std::string buffer(ZrTlsEngine::kRecord, '\0');
    for (;;) {
      const ZrTlsReadResult result = engine_.Read(buffer);
      ZR_FUZZ_CHECK(line_.receives - before <= ZrTlsTransport::kReadsPerTurn);
      if (result.status == ZrTlsReadStatus::kDone) {
        ZR_FUZZ_CHECK(result.count > 0 && !ended_ && !dead_);
        ZR_FUZZ_CHECK(std::string_view(sentByPeer_).substr(read_, result.count) ==
                      std::string_view(buffer).substr(0, result.count));
        read_ += result.count;
        continue;
      }
      ZR_FUZZ_CHECK(result.count == 0);
      ZR_FUZZ_CHECK(!dead_ || result.status == ZrTlsReadStatus::kFailed);
      ZR_FUZZ_CHECK(!ended_ || result.status == ZrTlsReadStatus::kEnded ||
                    result.status == ZrTlsReadStatus::kFailed);
      dead_ = dead_ || result.status == ZrTlsReadStatus::kFailed;
      ended_ = ended_ || result.status == ZrTlsReadStatus::kEnded;
      return;
    }
  }

  // A write that has to be repeated passes the same bytes again.
  void Write(std::size_t size) {
    if (toWrite_.empty()) toWrite_ = Text(size);
    const ZrTlsWriteResult result = engine_.Write(toWrite_, size % 256 == 1);
    if (result.status == ZrTlsWriteStatus::kDone) {
      ZR_FUZZ_CHECK(result.count > 0 && result.count <= toWrite_.size());
      accepted_ += toWrite_.substr(0, result.count);
      toWrite_.erase(0, result.count);
    }
    Note(result.status);
  }

  void Note(ZrTlsWriteStatus status) {
    ZR_FUZZ_CHECK(!dead_ || status == ZrTlsWriteStatus::kFailed);
    dead_ = dead_ || status == ZrTlsWriteStatus::kFailed;
  }

  void ReadOfPeer() {
    for (std::string text; !(text = peer_.Read()).empty();) {
      ZR_FUZZ_CHECK(std::string_view(accepted_).substr(readByPeer_, text.size()) == text);
      readByPeer_ += text.size();
    }
  }

  // Nothing is hoped for from a line that has failed.
  void CheckDeath() {
    if (line_.broken) {
      std::string buffer(64, '\0');
      ZR_FUZZ_CHECK(engine_.Read(buffer).status == ZrTlsReadStatus::kFailed);
      dead_ = true;
    }
    if (!dead_) return;
    const int calls = line_.sends + line_.receives;
    Note(engine_.Write("x", false).status);
    Note(engine_.Flush());
    Note(engine_.Handshake());
    Note(engine_.Shutdown());
    ZR_FUZZ_CHECK(engine_.HasBufferedInput() && !engine_.Problem().empty());
    ZR_FUZZ_CHECK(line_.sends + line_.receives == calls);
  }

  std::string_view script_;
  ScriptedLine line_;
  ZrTlsEngine engine_{Context(), line_, ZrTlsEngine::Side::kServer};
  zrtest::TlsPeer peer_{line_};
  std::string sentByPeer_;
  std::string toWrite_;
  std::string accepted_;
  std::size_t written_ = 0;
  std::size_t read_ = 0;
  std::size_t readByPeer_ = 0;
  bool dead_ = false;
  bool ended_ = false;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size > 4096) return 0;
  Exchange({reinterpret_cast<const char*>(data), size}).Run();
  return 0;
}
