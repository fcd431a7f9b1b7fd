#include "net/openssl_setup.h"

#include <openssl/crypto.h>
#include <openssl/err.h>

void zr::InitialiseOpenSsl() {
  ::OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);
  ::ERR_clear_error();
}
