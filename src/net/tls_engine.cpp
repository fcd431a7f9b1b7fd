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
  bool prepared = false;
  if (zr::IsNumericAddress(name)) {
    const std::string address = name.substr(0, name.find('%'));
    prepared = X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(ssl), address.c_str()) == 1;
  } else {
    prepared =
        SSL_set_tlsext_host_name(ssl, name.c_str()) == 1 && SSL_set1_host(ssl, name.c_str()) == 1;
  }
  if (prepared) return;
  ::ERR_clear_error();
  throw ZrException(
      "Error in TLS set-up: a certificate cannot be compared with the name of the host", 451,
      "src");
}

}  // namespace

void ZrTlsEngine::SslDeleter::operator()(ssl_st* ssl) const noexcept { ::SSL_free(ssl); }
void ZrTlsEngine::MethodDeleter::operator()(bio_method_st* method) const noexcept {
  ::BIO_meth_free(method);
}

ZrTlsEngine::ZrTlsEngine(ssl_ctx_st* context, ZrByteLine& line, Side side,
                         const std::string& serverName)
    : transport_(line), method_(MakeTransportMethod()) {
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
  SSL_set_msg_callback(ssl_.get(), &OnRecord);
  SSL_set_msg_callback_arg(ssl_.get(), this);
  if (side == Side::kServer) {
    SSL_set_accept_state(ssl_.get());
  } else {
    SetServerName(ssl_.get(), serverName);
    SSL_set_connect_state(ssl_.get());
  }
}

ZrTlsEngine::~ZrTlsEngine() = default;

// ---- Ends and failures -------------------------------------------------------------------------

// Called by OpenSSL for each record that it begins to read, and for each alert that it answers one
// with; what is written otherwise is data, or follows from what was read.
void ZrTlsEngine::OnRecord(int isWritten, int /*version*/, int type, const void* /*bytes*/,
                           std::size_t /*length*/, ssl_st* /*ssl*/, void* engine) {
  if (type == (isWritten != 0 ? SSL3_RT_ALERT : SSL3_RT_HEADER))
    static_cast<ZrTlsEngine*>(engine)->CountIdleRecord();
}

void ZrTlsEngine::CountIdleRecord() {
  if (!established_ && IsEstablished()) {
    established_ = true;
    idleRecords_ = 0;
  }
  if (established_ && ++idleInTurn_ > kMostIdleRecords) transport_.EndTurn();
  // OpenSSL cannot be stopped from here; its next look at the line ends it.
  if (++idleRecords_ <= (established_ ? kMostIdleRecords : kMostHandshakeRecords)) return;
  tooManyIdle_ = true;
  transport_.Break();
}

// A line that died while OpenSSL did something else counts, whatever it answered.
bool ZrTlsEngine::IsBroken() {
  if (!broken_ && transport_.Dead()) Break();
  return broken_;
}

void ZrTlsEngine::Break() {
  if (!broken_) problem_ = Reason();
  broken_ = true;
  transport_.Break();
  ::ERR_clear_error();
}

// The verdict on a certificate is a reason only where OpenSSL says that it was one: it is there for
// those that nobody wanted checked as well.
std::string ZrTlsEngine::Reason() const {
  if (tooManyIdle_) return "too many records without data";
  const unsigned long error = ERR_peek_error();
  if (ERR_GET_LIB(error) == ERR_LIB_SSL && ERR_GET_REASON(error) == SSL_R_CERTIFICATE_VERIFY_FAILED)
    return X509_verify_cert_error_string(SSL_get_verify_result(ssl_.get()));
  if (const char* text = ERR_reason_error_string(error); text != nullptr) return text;
  return transport_.Error() != 0 ? zr::SystemErrorText(transport_.Error()) : "connection closed";
}

// An end of the peer is no answer to a write: where OpenSSL gives it, the write can never be done.
ZrTlsWriteStatus ZrTlsEngine::WriteStatusOf(int result) {
  switch (transport_.Dead() ? SSL_ERROR_SYSCALL : ::SSL_get_error(ssl_.get(), result)) {
    case SSL_ERROR_NONE:
      return ZrTlsWriteStatus::kDone;
    case SSL_ERROR_WANT_READ:
      return ZrTlsWriteStatus::kWantRead;
    default:
      Break();
      return ZrTlsWriteStatus::kFailed;
  }
}

// ---- The handshake -----------------------------------------------------------------------------

ZrTlsWriteStatus ZrTlsEngine::Handshake() {
  if (IsBroken()) return ZrTlsWriteStatus::kFailed;
  ::ERR_clear_error();
  transport_.Gather(false);
  return WriteStatusOf(::SSL_do_handshake(ssl_.get()));
}

ZrTlsEngine::Facts ZrTlsEngine::Agreed() const {
  const char* const name = SSL_get_servername(ssl_.get(), TLSEXT_NAMETYPE_host_name);
  return {SSL_get_version(ssl_.get()), SSL_get_cipher_name(ssl_.get()),
          name == nullptr ? std::string() : std::string(name)};
}

bool ZrTlsEngine::IsEstablished() const { return SSL_is_init_finished(ssl_.get()) != 0; }

void ZrTlsEngine::ConnectWithin(milliseconds limit, const std::function<bool()>& cancelled) {
  const auto deadline = steady_clock::now() + limit;
  auto roomDeadline = steady_clock::time_point::max();
  for (;;) {
    BeginTurn();
    const ZrTlsWriteStatus status = Handshake();
    const ZrTlsWriteStatus flushed = Flush();
    if (status == ZrTlsWriteStatus::kFailed || flushed == ZrTlsWriteStatus::kFailed)
      throw ZrException("Error in TLS handshake: " + problem_, 534, "src");
    const bool full = flushed == ZrTlsWriteStatus::kWantWrite;
    if (status == ZrTlsWriteStatus::kDone && !full) return;
    const auto now = steady_clock::now();
    if (now >= deadline || (cancelled && cancelled()))
      throw ZrException("Error getting SSL_connect", 529, "src");
    // Short waits, so that the wish to cancel is noticed.
    const auto slice = std::min(zr::kCancelSlice, std::chrono::ceil<milliseconds>(deadline - now));
    if (!full) {
      roomDeadline = steady_clock::time_point::max();
      if (transport_.Line().WaitReadable(slice) == ZrWaitStatus::kFailed)
        throw ZrException("Error getting SSL read", 504, "src");
      continue;
    }
    roomDeadline = std::min(roomDeadline, now + kRoomLimit);
    if (now >= roomDeadline || transport_.Line().WaitWritable(slice) == ZrWaitStatus::kFailed)
      throw ZrException("Error getting SSL write", 519, "src");
  }
}

// ---- Reading -----------------------------------------------------------------------------------

ZrTlsReadResult ZrTlsEngine::Read(std::span<char> target) {
  if (IsBroken()) return {ZrTlsReadStatus::kFailed, 0};
  if (ended_) return {ZrTlsReadStatus::kEnded, 0};
  if (transport_.TurnIsOver()) return {ZrTlsReadStatus::kAgain, 0};
  ::ERR_clear_error();
  transport_.Gather(false);
  const auto length = static_cast<int>(std::min(target.size(), kRecord));
  const int count = ::SSL_read(ssl_.get(), target.data(), length);
  if (count > 0) {
    // Also when the line has died behind them: the next step says so. The last record was no idle
    // one, unless it was begun before.
    if (idleRecords_ > 0) --idleInTurn_;
    idleRecords_ = 0;
    return {ZrTlsReadStatus::kDone, static_cast<std::size_t>(count)};
  }
  switch (transport_.Dead() ? SSL_ERROR_SYSCALL : ::SSL_get_error(ssl_.get(), count)) {
    case SSL_ERROR_WANT_READ:
      return {transport_.TurnIsOver() ? ZrTlsReadStatus::kAgain : ZrTlsReadStatus::kWantRead, 0};
    case SSL_ERROR_ZERO_RETURN:
      ended_ = true;
      return {ZrTlsReadStatus::kEnded, 0};
    default:
      Break();
      return {ZrTlsReadStatus::kFailed, 0};
  }
}

bool ZrTlsEngine::HasBufferedInput() const {
  return broken_ || transport_.Dead() || ::SSL_has_pending(ssl_.get()) != 0;
}

// ---- Writing -----------------------------------------------------------------------------------

ZrTlsWriteResult ZrTlsEngine::Write(std::string_view bytes, bool more) {
  if (IsBroken()) return {ZrTlsWriteStatus::kFailed, 0};
  Gather(more);
  // Nothing is encrypted that could not be kept: so a write never stops half-way for want of room.
  if (transport_.Unsent() >= ZrTlsTransport::kGather) {
    const ZrTlsWriteStatus flushed = FlushTransport();
    if (flushed != ZrTlsWriteStatus::kDone) return {flushed, 0};
  }
  ::ERR_clear_error();
  const auto length = static_cast<int>(std::min(bytes.size(), kRecord));
  transport_.HoldInput(true);
  const int count = ::SSL_write(ssl_.get(), bytes.data(), length);
  transport_.HoldInput(false);
  const ZrTlsWriteStatus status = WriteStatusOf(count);
  if (status != ZrTlsWriteStatus::kDone) return {status, 0};
  idleRecords_ = 0;
  return {status, static_cast<std::size_t>(count)};
}

// OpenSSL has a buffer for records, too, and keeps it between those of one answer.
void ZrTlsEngine::Gather(bool more) {
  if (keepsBuffer_ != more) {
    if (more)
      SSL_clear_mode(ssl_.get(), SSL_MODE_RELEASE_BUFFERS);
    else
      SSL_set_mode(ssl_.get(), SSL_MODE_RELEASE_BUFFERS);
    keepsBuffer_ = more;
  }
  transport_.Gather(more);
}

ZrTlsWriteStatus ZrTlsEngine::Flush() {
  if (IsBroken()) return ZrTlsWriteStatus::kFailed;
  transport_.Gather(false);
  return FlushTransport();
}

ZrTlsWriteStatus ZrTlsEngine::FlushTransport() {
  switch (transport_.Flush().status) {
    case ZrIoStatus::kDone:
      return ZrTlsWriteStatus::kDone;
    case ZrIoStatus::kWouldBlock:
      return ZrTlsWriteStatus::kWantWrite;
    case ZrIoStatus::kClosed:
    case ZrIoStatus::kFailed:
      break;
  }
  Break();
  return ZrTlsWriteStatus::kFailed;
}

ZrTlsWriteStatus ZrTlsEngine::Shutdown() {
  if (IsBroken()) return ZrTlsWriteStatus::kFailed;
  if (!IsEstablished()) return ZrTlsWriteStatus::kDone;
  const ZrTlsWriteStatus flushed = Flush();
  if (flushed != ZrTlsWriteStatus::kDone) return flushed;
  if (!shutDown_) {
    shutDown_ = true;
    ::ERR_clear_error();
    // 0 is the usual answer: sent, and the peer has not answered yet, which nobody waits for.
    ::SSL_shutdown(ssl_.get());
    ::ERR_clear_error();
  }
  return Flush();
}
