#include "net/tls_context.h"

#include <openssl/err.h>
#include <openssl/ssl.h>

#include <string_view>

#include "base/exception.h"
#include "net/openssl_setup.h"

namespace {

constexpr const char* kSource = "zrtransceiver";
constexpr unsigned char kSessionContext[] = "velkoro";

// Forward secrecy always; authenticated encryption before what old clients need.
constexpr const char* kCiphersTls12 = "ECDHE+AESGCM:ECDHE+CHACHA20:ECDHE+AES:!aNULL";
// The short key is a third faster and no weaker in practice; a client without AES hardware names
// ChaCha20 first and then gets it.
constexpr const char* kCiphersTls13 =
    "TLS_AES_128_GCM_SHA256:TLS_AES_256_GCM_SHA384:TLS_CHACHA20_POLY1305_SHA256";
constexpr std::string_view kHttp11 = "http/1.1";

// A server has nobody to ask: an encrypted key is an unusable one.
int RefusePassword(char* /*buffer*/, int /*size*/, int /*writing*/, void* /*user*/) { return -1; }

// Clients that negotiate get the one protocol that is spoken here; others are served without.
int SelectProtocol(SSL* /*ssl*/, const unsigned char** out, unsigned char* outLength,
                   const unsigned char* offered, unsigned int offeredLength, void* /*user*/) {
  for (unsigned int at = 0; at < offeredLength; at += 1U + offered[at]) {
    const unsigned int length = offered[at];
    if (at + 1 + length > offeredLength) break;
    const std::string_view name(reinterpret_cast<const char*>(offered + at + 1), length);
    if (name != kHttp11) continue;
    *out = offered + at + 1;
    *outLength = offered[at];
    return SSL_TLSEXT_ERR_OK;
  }
  return SSL_TLSEXT_ERR_NOACK;
}

void SetCommonOptions(SSL_CTX* context) {
  SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION);
  SSL_CTX_set_options(context, SSL_OP_NO_COMPRESSION | SSL_OP_NO_RENEGOTIATION);
  // Partial writes, as a step writes record by record; moving buffers, as the bytes of a retried
  // write are the same but may have been moved with their owner.
  SSL_CTX_set_mode(context, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER |
                                SSL_MODE_RELEASE_BUFFERS);
  // One receive call for a record's head and body, and for several short records.
  SSL_CTX_set_read_ahead(context, 1);
}

}  // namespace

void ZrTlsContextDeleter::operator()(ssl_ctx_st* context) const noexcept {
  ::SSL_CTX_free(context);
}

namespace zr {

ZrTlsContextPtr MakeTlsServerContext(const std::string& certificateFile,
                                     const std::string& privateKeyFile) {
  if (certificateFile.empty() || privateKeyFile.empty())
    throw ZrException_SSL("can't find ca certificate and/or private key", 952, kSource);
  InitialiseOpenSsl();
  ZrTlsContextPtr context(::SSL_CTX_new(::TLS_server_method()));
  if (context == nullptr)
    throw ZrException_SSL("problem with SSL method initialization", 957, kSource);
  SetCommonOptions(context.get());
  // A client that ends its side without TLS's own end mark still gets its answer; requests carry
  // their length, so nothing can be cut unseen.
  SSL_CTX_set_options(context.get(), SSL_OP_CIPHER_SERVER_PREFERENCE | SSL_OP_PRIORITIZE_CHACHA |
                                         SSL_OP_IGNORE_UNEXPECTED_EOF);
  SSL_CTX_set_cipher_list(context.get(), kCiphersTls12);
  SSL_CTX_set_ciphersuites(context.get(), kCiphersTls13);
  // Clients resume with tickets, which they keep; a table of sessions here would only grow.
  SSL_CTX_set_session_cache_mode(context.get(), SSL_SESS_CACHE_OFF);
  SSL_CTX_set_session_id_context(context.get(), kSessionContext, sizeof kSessionContext - 1);
  SSL_CTX_set_alpn_select_cb(context.get(), &SelectProtocol, nullptr);
  SSL_CTX_set_default_passwd_cb(context.get(), &RefusePassword);
  // The certificate first: only then is the key compared with it, which finds no fault when the two
  // are of different kinds.
  if (SSL_CTX_use_certificate_chain_file(context.get(), certificateFile.c_str()) != 1 ||
      SSL_CTX_use_PrivateKey_file(context.get(), privateKeyFile.c_str(), SSL_FILETYPE_PEM) != 1 ||
      SSL_CTX_check_private_key(context.get()) != 1) {
    ::ERR_clear_error();
    throw ZrException_SSL("problem with SSL key pair", 963, kSource);
  }
  return context;
}

ZrTlsContextPtr MakeTlsClientContext(const ZrTlsTrust& trust) {
  InitialiseOpenSsl();
  ZrTlsContextPtr context(::SSL_CTX_new(::TLS_client_method()));
  if (context == nullptr)
    throw ZrException_SSL("problem with SSL method initialization (client)", 999, kSource);
  SetCommonOptions(context.get());
  if (trust.kind == ZrTlsTrust::Kind::kAnyone) return context;
  const bool loaded =
      trust.kind == ZrTlsTrust::Kind::kFile
          ? SSL_CTX_load_verify_locations(context.get(), trust.file.c_str(), nullptr) == 1
          : SSL_CTX_set_default_verify_paths(context.get()) == 1;
  if (!loaded) {
    ::ERR_clear_error();
    throw ZrException_SSL("problem with trusted certificates", 1004, kSource);
  }
  SSL_CTX_set_verify(context.get(), SSL_VERIFY_PEER, nullptr);
  return context;
}

}  // namespace zr
