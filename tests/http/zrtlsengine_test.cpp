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

/// Sends all the text whenever the socket has room, in a row of gathered records.
struct Sender {
  ZrTlsEngine& engine;
  std::string_view rest;
  std::size_t refusals = 0;

  bool Step() {
    while (!rest.empty()) {
      const ZrTlsResult result = engine.Write(rest, rest.size() > ZrTlsEngine::kRecord);
      EXPECT_LE(engine.Unsent(), ZrTlsTransport::kMostUnsent);
      rest.remove_prefix(result.count);
      if (result.status == ZrTlsStatus::kDone) continue;
      EXPECT_EQ(result.status, ZrTlsStatus::kWantWrite);
      ++refusals;
      return false;
    }
    return engine.Flush() == ZrTlsStatus::kDone;
  }
};

struct Reader {
  ZrTlsEngine& engine;
  std::string text;

  void Step() {
    char bytes[ZrTlsEngine::kRecord];
    for (;;) {
      const ZrTlsResult result = engine.Read(bytes);
      text.append(bytes, result.count);
      if (result.status == ZrTlsStatus::kDone) continue;
      EXPECT_EQ(result.status, ZrTlsStatus::kWantRead);
      return;
    }
  }
};

TEST_F(TlsTest, MovesMuchBothWaysThroughFullSockets) {
  Establish();
  std::string down(12 << 20, '\0');
  for (std::size_t i = 0; i < down.size(); ++i) down[i] = static_cast<char>(i * 7 + i / 997);
  const std::string up(down.rbegin(), down.rend());
  Sender server{*server_, down};
  Sender client{*client_, up};
  // Nobody reads at first, so that both ends meet a full socket in the middle of a row of records.
  EXPECT_FALSE(server.Step());
  EXPECT_FALSE(client.Step());
  const std::uint64_t sentBefore = server_->Sent();
  Reader atClient{*client_, {}};
  Reader atServer{*server_, {}};
  const auto stuck = std::chrono::steady_clock::now() + 60s;
  while (atClient.text.size() < down.size() || atServer.text.size() < up.size()) {
    ASSERT_LT(std::chrono::steady_clock::now(), stuck);
    atClient.Step();
    atServer.Step();
    server.Step();
    client.Step();
  }
  EXPECT_TRUE(atClient.text == down);
  EXPECT_TRUE(atServer.text == up);
  EXPECT_GT(server.refusals, 0U);
  EXPECT_GT(server_->Sent(), sentBefore);
}

TEST_F(TlsTest, SaysWhenInputIsLeftThatTheSocketNoLongerAnnounces) {
  Establish();
  for (const char* text : {"one", "two", "three"}) client_->Write(text, true);
  ASSERT_EQ(client_->Flush(), ZrTlsStatus::kDone);  // three records in one segment
  WaitFor(*far_);
  std::string all;
  char bytes[64];
  do {
    const ZrTlsResult result = server_->Read(bytes);
    ASSERT_EQ(result.status, ZrTlsStatus::kDone);
    all += std::string_view(bytes, result.count);
    all += server_->HasBufferedInput() ? "+" : ".";
  } while (server_->HasBufferedInput());
  EXPECT_EQ(all, "one+two+three.");
  EXPECT_EQ(server_->Read(bytes).status, ZrTlsStatus::kWantRead);
}

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
    EXPECT_EQ(server_->Shutdown(), ZrTlsStatus::kDone);
    Read(*client_, *near_, bytes);
    EXPECT_EQ(bytes, "answer");
    EXPECT_EQ(Read(*client_, *near_, bytes).status, ZrTlsStatus::kClosed);
  }
}

TEST_F(TlsTest, ABrokenConnectionStaysBroken) {
  Establish();
  client_->Write("unread bytes make the peer's end a reset", false);
  WaitFor(*far_);
  far_.reset();
  WaitFor(*near_);
  char bytes[16];
  EXPECT_EQ(client_->Read(bytes).status, ZrTlsStatus::kFailed);
  EXPECT_EQ(client_->Write("more", false).status, ZrTlsStatus::kFailed);
  EXPECT_EQ(client_->Shutdown(), ZrTlsStatus::kDone);
}

TEST_F(TlsTest, BytesThatAreNoTlsEndTheServerSide) {
  MakeServer();
  std::size_t sent = 0;
  near_->send("GET / HTTP/1.1\r\n\r\n", 18, sent);
  WaitFor(*far_);
  char bytes[16];
  EXPECT_EQ(server_->Read(bytes).status, ZrTlsStatus::kFailed);
  EXPECT_EQ(server_->Shutdown(), ZrTlsStatus::kDone);
}

TEST_F(TlsTest, ClientNamesTheHostButNoAddress) {
  const struct {
    std::string name;
    bool named;
  } cases[] = {{"localhost", true}, {"127.0.0.1", false}, {"::1", false}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    MakeClient(c.name);
    EXPECT_EQ(client_->Handshake(), ZrTlsStatus::kWantRead);
    WaitFor(*far_);
    std::string hello(8192, '\0');
    std::size_t count = 0;
    far_->receive(hello.data(), hello.size(), count);
    hello.resize(count);
    EXPECT_EQ(hello.find(c.name) != std::string::npos, c.named);
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

TEST_F(TlsTest, ConnectingEndsInTimeAndWhenCancelled) {
  MakeClient();
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(Failure([&] { client_->ConnectWithin(50ms); }), "Error getting SSL_connect");
  EXPECT_GE(std::chrono::steady_clock::now() - start, 50ms);
  EXPECT_EQ(Failure([&] { client_->ConnectWithin(1h, [] { return true; }); }),
            "Error getting SSL_connect");
  std::size_t sent = 0;
  far_->send("+OK no TLS here\r\n", 17, sent);
  EXPECT_EQ(Failure([&] { client_->ConnectWithin(20s); }),
            "Error in TLS handshake: wrong version number");
  EXPECT_EQ(Failure([&] {
              ZrTlsEngine none(zr::MakeTlsClientContext().get(), -1, Side::kClient);
              none.ConnectWithin(20s);
            }),
            "Error in TLS handshake: connection closed");
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
  ASSERT_EQ(zrtest::RunProgram(
                {"openssl", "x509", "-in", good.certificate, "-outform", "DER", "-out", der})
                .status,
            0);
  ASSERT_EQ(zrtest::RunProgram({"openssl", "pkey", "-in", good.privateKey, "-aes128", "-passout",
                                "pass:secret", "-out", locked})
                .status,
            0);
  const std::string chain = folder.Write(
      "chain.pem", zrtest::ReadFile(good.certificate) + zrtest::ReadFile(other.certificate));
  const std::string missing = "(SSL) can't find ca certificate and/or private key";
  const std::string pair = "(SSL) problem with SSL key pair";
  const struct {
    const char* name;
    std::string certificate;
    std::string key;
    std::string failure;
  } cases[] = {{"good", good.certificate, good.privateKey, ""},
               {"chain file", chain, good.privateKey, ""},
               {"no certificate", "", good.privateKey, missing},
               {"no key", good.certificate, "", missing},
               {"missing file", folder.Path("no"), good.privateKey, pair},
               {"a directory", folder.Path(), good.privateKey, pair},
               {"DER", der, good.privateKey, pair},
               {"encrypted key", good.certificate, locked, pair},
               {"foreign key", good.certificate, other.privateKey, pair},
               {"exchanged", good.privateKey, good.certificate, pair}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(Failure([&] { zr::MakeTlsServerContext(c.certificate, c.key); }), c.failure);
  }
  EXPECT_EQ(Failure([] { ZrTlsEngine none(nullptr, -1, Side::kServer); }),
            "Error getting SSL context");
  EXPECT_EQ(Failure([] {
              zr::MakeTlsClientContext({ZrTlsTrust::Kind::kFile, "/nonexistent"});
            }),
            "(SSL) problem with trusted certificates");
}

}  // namespace
