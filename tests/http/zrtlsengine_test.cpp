// Both ends of a TLS connection, driven step by step over a real socket pair on loopback.

#include "http/zrtlsengine.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <optional>

#include "host/zrexception.h"
#include "http/zrtlscontext.h"
#include "net/zrsocketipvx.h"
#include "tests/support/run.h"
#include "tests/support/temporary_folder.h"

using namespace std::chrono_literals;

namespace {

using Side = ZrTlsEngine::Side;

std::string Failure(const std::function<void()>& action) {
  try {
    action();
    return "";
  } catch (const ZrException& failure) {
    return failure.what();
  }
}

ZrTlsContextPtr ServerContext() {
  return zr::MakeTlsServerContext(zrtest::TestCertificate().certificate,
                                  zrtest::TestCertificate().privateKey);
}

struct Loopback {
  Loopback() {
    ZrSocketIPvx listener;
    int port = 0;
    EXPECT_EQ(listener.listen("", port, 4), ZrSocketResult::kSuccess);
    EXPECT_EQ(near_->connect("127.0.0.1", port), ZrSocketResult::kSuccess);
    EXPECT_GE(listener.accept(*far_, 10'000, [](ZrHostInfo_t&) { return true; }), 0);
  }
  std::unique_ptr<ZrSocketIPvx> near_ = std::make_unique<ZrSocketIPvx>();
  std::unique_ptr<ZrSocketIPvx> far_ = std::make_unique<ZrSocketIPvx>(1);
};

class TlsTest : public testing::Test, protected Loopback {
 protected:
  void MakeServer() {
    server_.emplace(ServerContext().get(), far_->primaryDescriptor(), Side::kServer);
  }
  void MakeClient(const std::string& name = "localhost", const ZrTlsTrust& trust = {}) {
    client_.emplace(zr::MakeTlsClientContext(trust).get(), near_->primaryDescriptor(),
                    Side::kClient, name);
  }
  void Establish() {
    MakeServer();
    MakeClient();
    const auto stuck = std::chrono::steady_clock::now() + 20s;
    while (!client_->IsEstablished() || !server_->IsEstablished()) {
      ASSERT_LT(std::chrono::steady_clock::now(), stuck);
      ASSERT_NE(client_->Handshake(), ZrTlsStatus::kFailed);
      ASSERT_NE(server_->Handshake(), ZrTlsStatus::kFailed);
    }
  }
  static void WaitFor(ZrSocketIPvx& socket) {
    EXPECT_TRUE(socket.waitReadable(10'000, socket.primaryDescriptor()));
  }
  /// Reads until there is something other than "nothing yet".
  static ZrTlsResult Read(ZrTlsEngine& engine, ZrSocketIPvx& socket, std::string& bytes) {
    for (;;) {
      bytes.resize(ZrTlsEngine::kRecord);
      const ZrTlsResult result = engine.Read(bytes);
      bytes.resize(result.count);
      if (result.status != ZrTlsStatus::kWantRead) return result;
      if (!socket.waitReadable(10'000, socket.primaryDescriptor())) return result;
    }
  }

  std::optional<ZrTlsEngine> server_;
  std::optional<ZrTlsEngine> client_;
};

TEST_F(TlsTest, AnswersAPeerThatEndedItsSide) {
  for (const bool orderly : {true, false}) {
    SCOPED_TRACE(orderly ? "with TLS's end mark" : "with the end of the stream alone");
    Establish();
    client_->Write("request", false);
    if (orderly) {
      EXPECT_EQ(client_->Shutdown(), ZrTlsStatus::kDone);
    } else {
      zr::ShutdownSend(near_->primaryDescriptor());
    }
    std::string bytes;
    Read(*server_, *far_, bytes);
    EXPECT_EQ(bytes, "request");
    EXPECT_EQ(Read(*server_, *far_, bytes).status, ZrTlsStatus::kClosed);
    EXPECT_EQ(server_->Write("answer", false).status, ZrTlsStatus::kDone);
    EXPECT_EQ(server_->Shutdown(), ZrTlsStatus::kDone);
    Read(*client_, *near_, bytes);
    EXPECT_EQ(bytes, "answer");
    EXPECT_EQ(Read(*client_, *near_, bytes).status, ZrTlsStatus::kClosed);
  }
}

TEST_F(TlsTest, ClientNamesTheHostButNoAddress) {
  for (const std::string name : {"localhost", "127.0.0.1", "::1"}) {
    MakeClient(name);
    EXPECT_EQ(client_->Handshake(), ZrTlsStatus::kWantRead);
    WaitFor(*far_);
    std::string hello(8192, '\0');
    std::size_t count = 0;
    far_->receive(hello.data(), hello.size(), count);
    hello.resize(count);
    EXPECT_EQ(hello.find(name) != std::string::npos, name == "localhost") << name;
  }
}

TEST_F(TlsTest, ClientChecksWhomItTrusts) {
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
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name + " " + c.failure);
    const Loopback pair;
    ZrTlsEngine server(ServerContext().get(), pair.far_->primaryDescriptor(), Side::kServer);
    ZrTlsEngine client(zr::MakeTlsClientContext(c.trust).get(), pair.near_->primaryDescriptor(),
                       Side::kClient, c.name);
    // The server takes a step each time the client asks whether it shall go on.
    const auto serve = [&] {
      server.Handshake();
      return false;
    };
    EXPECT_EQ(Failure([&] { client.ConnectWithin(20s, serve); }), c.failure);
    EXPECT_EQ(client.IsEstablished(), c.failure.empty());
  }
}

TEST(TlsTransport, RefusesAPeerThatNeverReads) {
  const Loopback pair;
  ZrTlsTransport transport(pair.near_->primaryDescriptor());
  const std::string record(1000, 'r');
  ZrIoStatus status = ZrIoStatus::kDone;
  for (int i = 0; i < 100'000 && status == ZrIoStatus::kDone; ++i) {
    status = transport.Write(record).status;
    ASSERT_LE(transport.Unsent(), ZrTlsTransport::kMostUnsent);
  }
  EXPECT_EQ(status, ZrIoStatus::kFailed);
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
  const std::string missing = "(SSL) can't find ca certificate and/or private key";
  const std::string pair = "(SSL) problem with SSL key pair";
  const struct {
    const char* name;
    std::string certificate;
    std::string key;
    std::string failure;
  } cases[] = {{"chain file", chain, good.privateKey, ""},
               {"no certificate", "", good.privateKey, missing},
               {"no key", good.certificate, "", missing},
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
