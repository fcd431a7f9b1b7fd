// Both ends of a TLS connection, driven step by step.

#include "net/tls_engine.h"

#include <gtest/gtest.h>

#include <functional>
#include <optional>

#include "base/exception.h"
#include "net/tls_context.h"
#include "tests/support/run.h"
#include "tests/support/scripted_line.h"
#include "tests/support/tls_peer.h"

using namespace std::chrono_literals;
using zrtest::ScriptedLine;
using zrtest::TlsPeer;

namespace {

std::string Failure(const std::function<void()>& action) {
  try {
    action();
    return "";
  } catch (const ZrException& failure) {
    return failure.what();
  }
}

ZrTlsContextPtr ServerContext() {
  const auto& files = zrtest::TestCertificate();
  return zr::MakeTlsServerContext(files.certificate, files.privateKey);
}

// Our client and our server, joined in memory.
struct Line {
  explicit Line(const std::string& name = "localhost", const ZrTlsTrust& trust = {}) {
    ScriptedLine::Join(near, far);
    client.emplace(zr::MakeTlsClientContext(trust).get(), near, ZrTlsEngine::Side::kClient, name);
    server.emplace(ServerContext().get(), far, ZrTlsEngine::Side::kServer);
  }
  /// The server takes a step each time the client asks whether it shall go on.
  std::string Connect() {
    const auto serve = [this] {
      server->Handshake();
      return false;
    };
    return Failure([&] { client->ConnectWithin(20s, serve); });
  }

  ScriptedLine near;
  ScriptedLine far;
  std::optional<ZrTlsEngine> client;
  std::optional<ZrTlsEngine> server;
};

// Our server with OpenSSL's own client, the handshake done.
struct Served {
  explicit Served(int version = TLS1_3_VERSION) : peer(line, version) {
    for (int step = 0; step < 4; ++step) {
      peer.Handshake();
      server.Handshake();
    }
    EXPECT_TRUE(server.IsEstablished());
  }
  ScriptedLine line;
  ZrTlsEngine server{ServerContext().get(), line, ZrTlsEngine::Side::kServer};
  TlsPeer peer;
};

/// What an engine reads, or how it does not.
std::string Read(ZrTlsEngine& engine) {
  std::string bytes(ZrTlsEngine::kRecord, '\0');
  const ZrTlsReadResult result = engine.Read(bytes);
  switch (result.status) {
    case ZrTlsReadStatus::kDone:
      return bytes.substr(0, result.count);
    case ZrTlsReadStatus::kWantRead:
      return "nothing";
    case ZrTlsReadStatus::kAgain:
      return "again";
    case ZrTlsReadStatus::kEnded:
      return "end";
    case ZrTlsReadStatus::kFailed:
      return "failed";
  }
  return "";
}

TEST(TlsEngine, AWriteThatAnEndHasMadeImpossibleFails) {
  ScriptedLine line;
  ZrTlsEngine server(ServerContext().get(), line, ZrTlsEngine::Side::kServer);
  TlsPeer(line).Handshake();
  line.input.resize(line.input.size() / 2);
  EXPECT_EQ(Read(server), "nothing");
  line.input = "more";
  EXPECT_EQ(server.Write("x", false).status, ZrTlsWriteStatus::kWantRead);
  EXPECT_EQ(line.input, "more");  // a write takes nothing that nobody would be told of
  line.input.clear();
  line.ended = true;
  EXPECT_EQ(Read(server), "end");
  EXPECT_EQ(server.Write("x", false).status, ZrTlsWriteStatus::kFailed);
}

TEST(TlsEngine, RecordsWithoutDataAreSomeAndNotMany) {
  for (const bool answered : {false, true}) {
    SCOPED_TRACE(answered);
    Served line;
    const auto updateKeys = [&](int times) {
      for (int n = 0; n < times; ++n) line.peer.UpdateKeys(answered);
    };
    // With data between them in either direction they may go on for ever.
    for (int i = 0; i < 4; ++i) {
      updateKeys(ZrTlsEngine::kMostIdleRecords / 2);
      line.server.BeginTurn();
      EXPECT_EQ(Read(line.server), "nothing");
      line.server.Write("answer", false);
      line.peer.Read();
    }
    // What they cost is spread over turns.
    line.server.BeginTurn();
    for (int i = 0; i < 4; ++i) {
      updateKeys(ZrTlsEngine::kMostIdleRecords / 2);
      line.peer.Send("x");
    }
    std::string seen;
    for (int step = 0; step < 8 && !seen.ends_with("nothing"); ++step) {
      if (seen.ends_with("again")) line.server.BeginTurn();
      seen += Read(line.server);
    }
    EXPECT_TRUE(seen.starts_with("xxagainxx") && seen.ends_with("nothing")) << seen;
    line.server.BeginTurn();
    updateKeys(2'000);
    const int receives = line.line.receives;
    EXPECT_EQ(Read(line.server), "failed");
    EXPECT_LE(line.line.receives, receives + 2);
    EXPECT_EQ(line.server.Problem(), "too many records without data");
  }
}

TEST(TlsEngine, RefusesASecondHandshake) {
  Served line(TLS1_2_VERSION);
  line.peer.Renegotiate();
  EXPECT_EQ(Read(line.server), "nothing");
  EXPECT_TRUE(line.server.IsEstablished());
}

TEST(TlsEngine, ClientNamesTheHostButNoAddress) {
  for (const std::string name : {"localhost", "127.0.0.1", "::1", "::1%1"}) {
    Line line(name);
    EXPECT_EQ(line.client->Handshake(), ZrTlsWriteStatus::kWantRead);
    EXPECT_EQ(line.far.input.find(name) != std::string::npos, name == "localhost") << name;
  }
  EXPECT_THROW(Line(std::string(300, 'x')), ZrException);
}

TEST(TlsEngine, ClientChecksWhomItTrusts) {
  const ZrTlsTrust file{ZrTlsTrust::Kind::kFile, zrtest::TestCertificate().certificate};
  const ZrTlsTrust store{ZrTlsTrust::Kind::kSystemStore, {}};
  const struct {
    std::string name;
    ZrTlsTrust trust;
    std::string failure;
  } cases[] = {{"other.example", {}, ""},
               {"localhost", file, ""},
               {"127.0.0.1", file, ""},
               {"other.example", file, "Error in TLS handshake: hostname mismatch"},
               {"::1%1", file, ""},
               {"::2%1", file, "Error in TLS handshake: IP address mismatch"},
               {"127.0.0.2", file, "Error in TLS handshake: IP address mismatch"},
               {"localhost", store, "Error in TLS handshake: self-signed certificate"}};
  for (const auto& c : cases) EXPECT_EQ(Line(c.name, c.trust).Connect(), c.failure) << c.name;
}

// Whom nobody wanted checked has not failed for that.
TEST(TlsEngine, TellsWhyAHandshakeFailed) {
  Line reset;
  reset.near.failReceiveAt = 1;
  EXPECT_EQ(reset.Connect(), "Error in TLS handshake: Connection reset by peer");
  Line plain;
  plain.near.input = "HTTP/1.1 400 Bad Request\r\n";
  EXPECT_EQ(plain.Connect(), "Error in TLS handshake: wrong version number");
  Line late;  // the certificate has come, and then nothing more
  late.client->Handshake();
  late.server->Handshake();
  late.near.input.resize(late.near.input.size() - 20);
  late.near.ended = true;
  EXPECT_EQ(Failure([&] { late.client->ConnectWithin(20s); }),
            "Error in TLS handshake: unexpected eof while reading");
}

}  // namespace
