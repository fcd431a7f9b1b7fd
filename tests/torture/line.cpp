#include "tests/torture/line.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <sys/socket.h>

#include <algorithm>
#include <utility>

#include "platform/socket.h"
#include "tests/support/temporary_folder.h"
#include "tests/support/unread_by_peer.h"

namespace zrtest {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

using Context = std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)>;

Context MakeContext(Wire wire, bool server) {
  Context context(SSL_CTX_new(server ? TLS_server_method() : TLS_client_method()), &SSL_CTX_free);
  const int version = wire == Wire::kTls12 ? TLS1_2_VERSION : TLS1_3_VERSION;
  SSL_CTX_set_min_proto_version(context.get(), version);
  SSL_CTX_set_max_proto_version(context.get(), version);
  if (server) {
    const auto& files = TestCertificate();
    SSL_CTX_use_certificate_chain_file(context.get(), files.certificate.c_str());
    SSL_CTX_use_PrivateKey_file(context.get(), files.privateKey.c_str(), SSL_FILETYPE_PEM);
  }
  return context;
}

}  // namespace

Line::Line(int port, Wire wire) : RawClient(port, 16 * 1024) { Begin(wire, false); }

Line::Line(ZrDescriptor socket, Wire wire) : RawClient(std::move(socket)) { Begin(wire, true); }

void Line::Begin(Wire wire, bool server) {
  const int now = 1;
  setsockopt(socket_.Get(), IPPROTO_TCP, TCP_NODELAY, &now, sizeof now);
  if (wire == Wire::kPlain) return;
  const auto context = MakeContext(wire, server);
  tls_ = {SSL_new(context.get()), &SSL_free};
  SSL_set_bio(tls_.get(), BIO_new(BIO_s_mem()), BIO_new(BIO_s_mem()));
  BIO_set_mem_eof_return(SSL_get_rbio(tls_.get()), -1);
  server ? SSL_set_accept_state(tls_.get()) : SSL_set_connect_state(tls_.get());
}

std::string Line::TakeOutput() {
  BIO* const out = SSL_get_wbio(tls_.get());
  std::string bytes(BIO_ctrl_pending(out), '\0');
  if (!bytes.empty()) BIO_read(out, bytes.data(), static_cast<int>(bytes.size()));
  ERR_clear_error();
  return bytes;
}

std::string Line::FirstFlight() {
  if (SSL_is_server(tls_.get())) Fill(kLong);
  SSL_do_handshake(tls_.get());
  return TakeOutput();
}

bool Line::Handshake() {
  while (tls_ && !SSL_is_init_finished(tls_.get())) {
    SSL_do_handshake(tls_.get());
    if (const std::string out = TakeOutput(); !out.empty() && !SendRaw(out)) return false;
    if (!SSL_is_init_finished(tls_.get()) && !Fill(kLong)) return false;
  }
  return Connected();
}

std::string Line::Seal(std::string_view text) {
  if (!tls_ || text.empty()) return std::string(text);
  SSL_write(tls_.get(), text.data(), static_cast<int>(text.size()));
  return TakeOutput();
}

std::string Line::KeyUpdates(int count) {
  std::string bytes;
  for (int i = 0; i < count; ++i) {
    SSL_key_update(tls_.get(), SSL_KEY_UPDATE_NOT_REQUESTED);
    SSL_do_handshake(tls_.get());
    if (i % 64 == 63 || i + 1 == count) bytes += TakeOutput();
  }
  return bytes;
}

bool Line::WaitUntilTaken() { return zrtest::WaitUntilTaken(socket_.Get()); }

bool Line::WaitInput(milliseconds limit) {
  return zr::WaitReadable(socket_.Get(), limit) == ZrWaitStatus::kReady;
}

// Bytes from the wire into TLS's memory.
bool Line::Fill(milliseconds limit) {
  const std::string bytes = RawClient::ReadSome(16 * 1024, limit);
  return !bytes.empty() &&
         BIO_write(SSL_get_rbio(tls_.get()), bytes.data(), static_cast<int>(bytes.size())) > 0;
}

std::string Line::ReadSome(std::size_t most, milliseconds limit) {
  if (!tls_) return RawClient::ReadSome(most, limit);
  std::string text(std::min(most, std::size_t{64 * 1024}), '\0');
  const auto deadline = steady_clock::now() + limit;
  do {
    const int count = SSL_read(tls_.get(), text.data(), static_cast<int>(text.size()));
    const int error = SSL_get_error(tls_.get(), count);
    if (const std::string out = TakeOutput(); !out.empty()) SendRaw(out);
    if (count > 0) {
      text.resize(static_cast<std::size_t>(count));
      return text;
    }
    if (error != SSL_ERROR_WANT_READ) {
      ended_ = true;
      return {};
    }
  } while (Fill(limit) && steady_clock::now() < deadline);
  return {};
}

void Line::CloseNotify() {
  if (!tls_) return;
  if (SSL_is_init_finished(tls_.get())) {
    SSL_shutdown(tls_.get());
    SendRaw(TakeOutput());
  } else {
    SendRaw(std::string_view("\x15\x03\x03\x00\x02\x01\x00", 7));
  }
}

}  // namespace zrtest
