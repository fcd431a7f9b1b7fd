#include "net/tls_engine.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include <algorithm>

#include "base/exception.h"
#include "platform/socket.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

ZrTlsTransport& TransportOf(BIO* bio) { return *static_cast<ZrTlsTransport*>(BIO_get_data(bio)); }

int BioWrite(BIO* bio, const char* bytes, std::size_t length, std::size_t* written) {
  BIO_clear_retry_flags(bio);
  const bool taken = TransportOf(bio).Write({bytes, length}).status == ZrIoStatus::kDone;
  *written = taken ? length : 0;
  return taken ? 1 : 0;
}

int BioRead(BIO* bio, char* target, std::size_t capacity, std::size_t* received) {
  BIO_clear_retry_flags(bio);
  const ZrIoResult result = TransportOf(bio).Read({target, capacity});
  *received = result.count;
  if (result.status == ZrIoStatus::kWouldBlock) BIO_set_retry_read(bio);
  // OpenSSL tells an orderly end from a failure by this flag, asked for through BIO_eof().
  if (result.status == ZrIoStatus::kClosed && result.error == 0)
    BIO_set_flags(bio, BIO_FLAGS_IN_EOF);
  return result.status == ZrIoStatus::kDone ? 1 : 0;
}

long BioControl(BIO* bio, int command, long /*number*/, void* /*pointer*/) {
  switch (command) {
    case BIO_CTRL_FLUSH:
      // What the socket refuses stays with the transport, whose owner watches for room.
      return 1;
    case BIO_CTRL_EOF:
      return BIO_test_flags(bio, BIO_FLAGS_IN_EOF) != 0 ? 1 : 0;
    default:
      return 0;
  }
}

// One per connection: a shared one could not be freed, neither when the library is unloaded nor
// while a host that did not stop its server runs its exit handlers.
BIO_METHOD* MakeTransportMethod() {
  BIO_METHOD* const made = BIO_meth_new(BIO_TYPE_SOURCE_SINK, "velkoro transport");
  if (made != nullptr) {
    BIO_meth_set_write_ex(made, &BioWrite);
    BIO_meth_set_read_ex(made, &BioRead);
    BIO_meth_set_ctrl(made, &BioControl);
  }
  return made;
}

void SetServerName(SSL* ssl, const std::string& name) {
  if (name.empty()) return;
  if (zr::IsNumericAddress(name)) {
    X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(ssl), name.c_str());
    return;
  }
  SSL_set_tlsext_host_name(ssl, name.c_str());
  SSL_set1_host(ssl, name.c_str());
}

}  // namespace

void ZrTlsEngine::SslDeleter::operator()(ssl_st* ssl) const noexcept { ::SSL_free(ssl); }
void ZrTlsEngine::MethodDeleter::operator()(bio_method_st* method) const noexcept {
  ::BIO_meth_free(method);
}

ZrTlsEngine::ZrTlsEngine(ssl_ctx_st* context, int socket, Side side, const std::string& serverName)
    : transport_(socket), method_(MakeTransportMethod()) {
  ::ERR_clear_error();
  ssl_.reset(::SSL_new(context));
  BIO* const bio = ssl_ && method_ ? ::BIO_new(method_.get()) : nullptr;
  if (bio == nullptr) {
    ::ERR_clear_error();
    throw ZrException("Error getting SSL context", 450, "src");
  }
  BIO_set_data(bio, &transport_);
  BIO_set_init(bio, 1);
  SSL_set_bio(ssl_.get(), bio, bio);
  if (side == Side::kServer) {
    SSL_set_accept_state(ssl_.get());
  } else {
    SetServerName(ssl_.get(), serverName);
    SSL_set_connect_state(ssl_.get());
  }
}

ZrTlsEngine::~ZrTlsEngine() = default;

ZrTlsStatus ZrTlsEngine::StatusOf(int result) {
  switch (::SSL_get_error(ssl_.get(), result)) {
    case SSL_ERROR_NONE:
      return ZrTlsStatus::kDone;
    case SSL_ERROR_WANT_READ:
      return ZrTlsStatus::kWantRead;
    case SSL_ERROR_WANT_WRITE:
      return ZrTlsStatus::kWantWrite;
    case SSL_ERROR_ZERO_RETURN:
      return ZrTlsStatus::kClosed;
    default:
      broken_ = true;
      return ZrTlsStatus::kFailed;
  }
}

ZrTlsStatus ZrTlsEngine::Handshake() {
  if (broken_) return ZrTlsStatus::kFailed;
  ::ERR_clear_error();
  transport_.Gather(false);
  return StatusOf(::SSL_do_handshake(ssl_.get()));
}

bool ZrTlsEngine::IsEstablished() const { return SSL_is_init_finished(ssl_.get()) != 0; }

void ZrTlsEngine::ThrowHandshakeFailure() const {
  std::string reason = "connection closed";
  if (const long verified = SSL_get_verify_result(ssl_.get()); verified != X509_V_OK) {
    reason = X509_verify_cert_error_string(verified);
  } else if (const char* text = ERR_reason_error_string(ERR_peek_error()); text != nullptr) {
    reason = text;
  }
  ::ERR_clear_error();
  throw ZrException("Error in TLS handshake: " + reason, 534, "src");
}

void ZrTlsEngine::ConnectWithin(milliseconds limit, const std::function<bool()>& cancelled) {
  const auto deadline = steady_clock::now() + limit;
  auto roomDeadline = steady_clock::time_point::max();
  for (;;) {
    const ZrTlsStatus status = Handshake();
    const bool full = status == ZrTlsStatus::kWantWrite || Flush() == ZrTlsStatus::kWantWrite;
    if (status == ZrTlsStatus::kDone && !full) return;
    if (status == ZrTlsStatus::kFailed || status == ZrTlsStatus::kClosed) ThrowHandshakeFailure();
    const auto now = steady_clock::now();
    if (now >= deadline || (cancelled && cancelled())) {
      throw ZrException("Error getting SSL_connect", 529, "src");
    }
    // Short waits, so that the wish to cancel is noticed.
    const auto slice = std::min(zr::kCancelSlice, std::chrono::ceil<milliseconds>(deadline - now));
    if (!full) {
      roomDeadline = steady_clock::time_point::max();
      if (zr::WaitReadable(transport_.Socket(), slice) == ZrWaitStatus::kFailed) {
        throw ZrException("Error getting SSL read", 504, "src");
      }
      continue;
    }
    roomDeadline = std::min(roomDeadline, now + kRoomLimit);
    if (now >= roomDeadline ||
        zr::WaitWritable(transport_.Socket(), slice) == ZrWaitStatus::kFailed) {
      throw ZrException("Error getting SSL write", 519, "src");
    }
  }
}

ZrTlsResult ZrTlsEngine::Read(std::span<char> target) {
  if (broken_) return {ZrTlsStatus::kFailed, 0};
  ::ERR_clear_error();
  transport_.Gather(false);
  const auto length = static_cast<int>(std::min(target.size(), kRecord));
  const int count = ::SSL_read(ssl_.get(), target.data(), length);
  if (count > 0) return {ZrTlsStatus::kDone, static_cast<std::size_t>(count)};
  return {StatusOf(count), 0};
}

bool ZrTlsEngine::HasBufferedInput() const {
  return !broken_ && ::SSL_has_pending(ssl_.get()) != 0;
}

ZrTlsResult ZrTlsEngine::Write(std::string_view bytes, bool more) {
  if (broken_) return {ZrTlsStatus::kFailed, 0};
  transport_.Gather(more);
  // Nothing is encrypted that could not be kept: so a write never stops half-way for want of room.
  if (transport_.Unsent() >= ZrTlsTransport::kGather) {
    const ZrTlsStatus flushed = FlushTransport();
    if (flushed != ZrTlsStatus::kDone) return {flushed, 0};
  }
  ::ERR_clear_error();
  const auto length = static_cast<int>(std::min(bytes.size(), kRecord));
  const int count = ::SSL_write(ssl_.get(), bytes.data(), length);
  if (count > 0) return {ZrTlsStatus::kDone, static_cast<std::size_t>(count)};
  return {StatusOf(count), 0};
}

ZrTlsStatus ZrTlsEngine::Flush() {
  transport_.Gather(false);
  return FlushTransport();
}

ZrTlsStatus ZrTlsEngine::FlushTransport() {
  switch (transport_.Flush().status) {
    case ZrIoStatus::kDone:
      return ZrTlsStatus::kDone;
    case ZrIoStatus::kWouldBlock:
      return ZrTlsStatus::kWantWrite;
    default:
      broken_ = true;
      return ZrTlsStatus::kFailed;
  }
}

ZrTlsStatus ZrTlsEngine::Shutdown() {
  if (broken_ || !IsEstablished()) return ZrTlsStatus::kDone;
  const ZrTlsStatus flushed = Flush();
  if (flushed != ZrTlsStatus::kDone) return flushed;
  if (!shutDown_) {
    shutDown_ = true;
    ::ERR_clear_error();
    // 0 is the usual answer: sent, and the peer has not answered yet, which nobody waits for.
    ::SSL_shutdown(ssl_.get());
    ::ERR_clear_error();
  }
  return Flush();
}
