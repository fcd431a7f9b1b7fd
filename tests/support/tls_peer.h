#pragma once
// The client of a TLS server under test, on OpenSSL itself: it can do what our own client never
// does, such as changing its keys without end.

#include <openssl/ssl.h>

#include <memory>
#include <string>
#include <string_view>

#include "tests/support/scripted_line.h"

namespace zrtest {

class TlsPeer {
 public:
  /// Its bytes become the input of the server's line, whose output it reads.
  explicit TlsPeer(ScriptedLine& server, int version = TLS1_3_VERSION)
      : server_(server),
        context_(SSL_CTX_new(TLS_client_method()), &SSL_CTX_free),
        ssl_(SSL_new(context_.get()), &SSL_free) {
    SSL_set_min_proto_version(ssl_.get(), version);
    SSL_set_max_proto_version(ssl_.get(), version);
    SSL_set_bio(ssl_.get(), BIO_new(BIO_s_mem()), BIO_new(BIO_s_mem()));
    SSL_set_connect_state(ssl_.get());
  }
  /// One step of the handshake: true when it is finished.
  bool Handshake() {
    Take();
    const bool done = SSL_do_handshake(ssl_.get()) == 1;
    Give();
    return done;
  }
  /// False when it cannot send (yet).
  bool Send(std::string_view text) {
    const int count = SSL_write(ssl_.get(), text.data(), static_cast<int>(text.size()));
    Give();
    return count > 0;
  }
  std::string Read() {
    Take();
    std::string text(16384, '\0');
    text.resize(static_cast<std::size_t>(
        std::max(0, SSL_read(ssl_.get(), text.data(), static_cast<int>(text.size())))));
    return text;
  }
  /// A change of keys; the server is asked to change its own as well.
  void UpdateKeys(bool both) {
    SSL_key_update(ssl_.get(), both ? SSL_KEY_UPDATE_REQUESTED : SSL_KEY_UPDATE_NOT_REQUESTED);
    SSL_do_handshake(ssl_.get());
    Give();
  }
  /// The wish for a second handshake (TLS 1.2).
  void Renegotiate() {
    SSL_renegotiate(ssl_.get());
    SSL_do_handshake(ssl_.get());
    Give();
  }
  void Goodbye() {
    SSL_shutdown(ssl_.get());
    Give();
  }

 private:
  void Take() {
    BIO_write(SSL_get_rbio(ssl_.get()), server_.output.data(),
              static_cast<int>(server_.output.size()));
    server_.output.clear();
  }
  void Give() {
    char bytes[4096];
    for (int count = 0; (count = BIO_read(SSL_get_wbio(ssl_.get()), bytes, sizeof bytes)) > 0;) {
      server_.input.append(bytes, static_cast<std::size_t>(count));
    }
  }

  ScriptedLine& server_;
  std::unique_ptr<SSL_CTX, void (*)(SSL_CTX*)> context_;
  std::unique_ptr<SSL, void (*)(SSL*)> ssl_;
};

}  // namespace zrtest
