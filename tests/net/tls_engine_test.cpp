// Both ends of a TLS connection, driven step by step.

#include "net/tls_engine.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <functional>
#include <optional>

#include "base/exception.h"
#include "net/tls_context.h"
#include "platform/socket.h"
#include "tests/support/run.h"

using namespace std::chrono_literals;

namespace {

std::string Failure(const std::function<void()>& action) {
  try {
    action();
    return "";
  } catch (const ZrException& failure) {
    return failure.what();
  }
}

struct Line {
  explicit Line(const std::string& name = "localhost", const ZrTlsTrust& trust = {}) {
    const auto& files = zrtest::TestCertificate();
    int both[2] = {-1, -1};
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, both), 0);
    near = ZrDescriptor(both[0]);
    far = ZrDescriptor(both[1]);
    client.emplace(zr::MakeTlsClientContext(trust).get(), both[0], ZrTlsEngine::Side::kClient,
                   name);
    server.emplace(zr::MakeTlsServerContext(files.certificate, files.privateKey).get(), both[1],
                   ZrTlsEngine::Side::kServer);
  }
  /// The server takes a step each time the client asks whether it shall go on.
  std::string Connect() {
    const auto serve = [this] {
      server->Handshake();
      return false;
    };
    return Failure([&] { client->ConnectWithin(20s, serve); });
  }

  ZrDescriptor near;
  ZrDescriptor far;
  std::optional<ZrTlsEngine> client;
  std::optional<ZrTlsEngine> server;
};

/// What an engine reads; "end" at the end of the stream.
std::string Read(ZrTlsEngine& engine) {
  std::string bytes(ZrTlsEngine::kRecord, '\0');
  const ZrTlsResult result = engine.Read(bytes);
  return result.status == ZrTlsStatus::kClosed ? "end" : bytes.substr(0, result.count);
}

TEST(TlsEngine, AnswersAPeerThatEndedItsSide) {
  for (const bool orderly : {true, false}) {
    SCOPED_TRACE(orderly ? "with TLS's end mark" : "with the end of the stream alone");
    Line line;
    ASSERT_EQ(line.Connect(), "");
    line.client->Write("request", false);
    if (orderly) {
      EXPECT_EQ(line.client->Shutdown(), ZrTlsStatus::kDone);
    } else {
      zr::ShutdownSend(line.near.Get());
    }
    EXPECT_EQ(Read(*line.server), "request");
    EXPECT_EQ(Read(*line.server), "end");
    EXPECT_EQ(line.server->Write("answer", false).status, ZrTlsStatus::kDone);
    EXPECT_EQ(line.server->Shutdown(), ZrTlsStatus::kDone);
    EXPECT_EQ(Read(*line.client), "answer");
    EXPECT_EQ(Read(*line.client), "end");
  }
}

TEST(TlsEngine, ClientNamesTheHostButNoAddress) {
  for (const std::string name : {"localhost", "127.0.0.1", "::1"}) {
    Line line(name);
    EXPECT_EQ(line.client->Handshake(), ZrTlsStatus::kWantRead);
    std::string hello(8192, '\0');
    hello.resize(zr::ReceiveBytes(line.far.Get(), hello).count);
    EXPECT_EQ(hello.find(name) != std::string::npos, name == "localhost") << name;
  }
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
               {"127.0.0.2", file, "Error in TLS handshake: IP address mismatch"},
               {"localhost", store, "Error in TLS handshake: self-signed certificate"}};
  for (const auto& c : cases) EXPECT_EQ(Line(c.name, c.trust).Connect(), c.failure) << c.name;
}

TEST(TlsContext, TellsWhichKeyPairsCannotServe) {
  const zrtest::TemporaryFolder folder;
  const auto& good = zrtest::TestCertificate();
  const auto other = zr::EnsureSelfSignedCertificate(folder.Path("other"));
  const std::string der = folder.Path("cert.der");
  const std::string locked = folder.Path("locked.pem");
  const auto openssl = [](std::vector<std::string> words) {
    words.insert(words.begin(), "openssl");
    EXPECT_EQ(zrtest::RunProgram(words).status, 0);
  };
  openssl({"x509", "-in", good.certificate, "-outform", "DER", "-out", der});
  openssl({"pkey", "-in", good.privateKey, "-aes128", "-passout", "pass:x", "-out", locked});
  const std::string chain = folder.Write(
      "chain.pem", zrtest::ReadFile(good.certificate) + zrtest::ReadFile(other.certificate));
  const std::string pair = "(SSL) problem with SSL key pair";
  const struct {
    const char* name;
    std::string certificate;
    std::string key;
    std::string failure;
  } cases[] = {{"chain file", chain, good.privateKey, ""},
               {"missing file", folder.Path("no"), good.privateKey, pair},
               {"DER", der, good.privateKey, pair},
               {"encrypted key", good.certificate, locked, pair},
               {"foreign key", good.certificate, other.privateKey, pair}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(Failure([&] { zr::MakeTlsServerContext(c.certificate, c.key); }), c.failure);
  }
}

}  // namespace
