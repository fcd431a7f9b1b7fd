#include "tests/torture/line.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "tests/support/temporary_folder.h"
#include "tests/support/unread_by_peer.h"

namespace zrtest {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

// A buffer as large as all that is still to come would be cleared for each piece of it.
constexpr std::size_t kPiece = 64 * 1024;

bool WaitOn(int socket, short events, milliseconds limit) {
  pollfd entry{socket, events, 0};
  return poll(&entry, 1, static_cast<int>(limit.count())) == 1;
}

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

void Line::Free::operator()(ssl_st* tls) const { SSL_free(tls); }

Line::Line(int port, Wire wire) : socket_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  const int window = 16 * 1024;
  setsockopt(socket_.Get(), SOL_SOCKET, SO_RCVBUF, &window, sizeof window);
  sockaddr_in peer{};
  peer.sin_family = AF_INET;
  peer.sin_port = htons(static_cast<std::uint16_t>(port));
  peer.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(socket_.Get(), reinterpret_cast<sockaddr*>(&peer), sizeof peer) != 0) {
    socket_.Close();
  }
  Begin(wire, false);
}

Line::Line(ZrDescriptor socket, Wire wire) : socket_(std::move(socket)) { Begin(wire, true); }

Line::~Line() = default;

void Line::Begin(Wire wire, bool server) {
  const int now = 1;
  setsockopt(socket_.Get(), IPPROTO_TCP, TCP_NODELAY, &now, sizeof now);
  if (wire == Wire::kPlain) return;
  const auto context = MakeContext(wire, server);
  tls_.reset(SSL_new(context.get()));
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
  return IsOpen();
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

bool Line::SendRaw(std::string_view bytes, milliseconds limit) {
  while (!bytes.empty()) {
    const ssize_t count =
        send(socket_.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (count >= 0) {
      bytes.remove_prefix(static_cast<std::size_t>(count));
    } else if (errno != EAGAIN || !WaitOn(socket_.Get(), POLLOUT, limit)) {
      return false;
    }
  }
  return true;
}

bool Line::WaitUntilTaken() { return zrtest::WaitUntilTaken(socket_.Get()); }

bool Line::WaitInput(milliseconds limit) { return WaitOn(socket_.Get(), POLLIN, limit); }

// Bytes from the wire into TLS's memory.
bool Line::Fill(milliseconds limit) {
  char bytes[16 * 1024];
  if (!WaitOn(socket_.Get(), POLLIN, limit)) return false;
  const ssize_t count = recv(socket_.Get(), bytes, sizeof bytes, MSG_DONTWAIT);
  if (count > 0) return BIO_write(SSL_get_rbio(tls_.get()), bytes, static_cast<int>(count)) > 0;
  ended_ = count == 0 || errno != EAGAIN;
  return false;
}

std::string Line::Read(std::size_t most, milliseconds limit) {
  std::string text(std::min(most, kPiece), '\0');
  if (!tls_) {
    ssize_t count = -1;
    if (WaitOn(socket_.Get(), POLLIN, limit)) {
      count = recv(socket_.Get(), text.data(), text.size(), MSG_DONTWAIT);
      ended_ = count == 0 || (count < 0 && errno != EAGAIN);
    }
    text.resize(static_cast<std::size_t>(std::max<ssize_t>(0, count)));
    return text;
  }
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

std::string Line::ReadUntil(std::string_view mark) {
  std::string all;
  while (all.find(mark) == std::string::npos) {
    const std::string more = Read();
    if (more.empty()) break;
    all += more;
  }
  return all;
}

std::string Line::ReadToEnd(milliseconds limit) {
  std::string all;
  for (std::string more = Read(65536, limit); !more.empty(); more = Read(65536, limit)) all += more;
  return all;
}

void Line::Finish() { shutdown(socket_.Get(), SHUT_WR); }

void Line::CloseNotify() {
  if (!tls_) return;
  if (SSL_is_init_finished(tls_.get())) {
    SSL_shutdown(tls_.get());
    SendRaw(TakeOutput());
  } else {
    SendRaw(std::string_view("\x15\x03\x03\x00\x02\x01\x00", 7));
  }
}

void Line::Reset() {
  const linger now{1, 0};
  setsockopt(socket_.Get(), SOL_SOCKET, SO_LINGER, &now, sizeof now);
  socket_.Close();
}

}  // namespace zrtest
