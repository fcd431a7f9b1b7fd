#pragma once
// TLS settings that many connections share: made once per server or worker from PEM files, then
// only read. OpenSSL's types stay out of this header.

#include <memory>
#include <string>

struct ssl_ctx_st;  // OpenSSL's SSL_CTX

struct ZrTlsContextDeleter {
  void operator()(ssl_ctx_st* context) const noexcept;
};
/// Owns a context; each connection made from it keeps it alive as well.
using ZrTlsContextPtr = std::unique_ptr<ssl_ctx_st, ZrTlsContextDeleter>;

/// Whom an outgoing connection trusts.
struct ZrTlsTrust {
  enum class Kind {
    kAnyone,       ///< No check at all: the line is encrypted, the peer is not known.
    kSystemStore,  ///< The certificates that the machine trusts, and the host name.
    kFile,         ///< The certificates in `file`, and the host name.
  };
  Kind kind = Kind::kAnyone;
  std::string file;  ///< PEM
};

namespace zr {

/// The context of a server. The certificate file may hold the intermediate certificates after the
/// server's own. Throws ZrException_SSL "can't find ca certificate and/or private key" when a name
/// is empty, "problem with SSL method initialization" when OpenSSL gives no context, and "problem
/// with SSL key pair" when a file is missing, is not PEM, is encrypted (nobody is asked for a
/// password) or does not belong to the other. Threads: any.
ZrTlsContextPtr MakeTlsServerContext(const std::string& certificateFile,
                                     const std::string& privateKeyFile);

/// The context of outgoing connections. Throws ZrException_SSL "problem with SSL method
/// initialization (client)" when OpenSSL gives no context, and "problem with trusted certificates"
/// when those cannot be loaded. Threads: any.
ZrTlsContextPtr MakeTlsClientContext(const ZrTlsTrust& trust = {});

}  // namespace zr
