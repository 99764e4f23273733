#include "tls/ssllibraryguard.h"

#include <openssl/ssl.h>

#include "tls/sslexception.h"

SSLLibraryGuard::SSLLibraryGuard() {
    // Repeated calls are cheap and safe from any thread (OPENSSL_init_ssl(3)).
    if (OPENSSL_init_ssl(OPENSSL_INIT_LOAD_SSL_STRINGS | OPENSSL_INIT_LOAD_CRYPTO_STRINGS, nullptr) != 1) {
        throw tools::SSLException();
    }
}

SSLLibraryGuard::~SSLLibraryGuard() = default;
