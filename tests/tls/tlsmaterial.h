// TLS material for the tests, made once per test binary with the OpenSSL API in a private
// temporary directory that is removed at exit: nothing here is ever committed or reused.
#pragma once

#include <openssl/ssl.h>

#include <string>

namespace corvane_test {

struct TlsMaterial {
    std::string directory;
    std::string caFile;          // the test CA, "CN=corvane test CA"
    std::string caPath;          // a hashed directory holding only the test CA
    std::string serverCert;      // "CN=localhost", DNS:localhost and IP:127.0.0.1, issued by the CA
    std::string serverKey;       // its key, plain
    std::string encryptedKey;    // its key, encrypted with `password`
    std::string otherKey;        // an EC key that belongs to no certificate
    std::string pkcs12File;      // server key, certificate and the CA as chain, under `password`
    std::string expiredCert;     // a self-signed CA certificate that expired yesterday
    std::string rootBundle;      // expired certificate, a damaged block and the test CA
    std::string password = "s3cret";

    // The same key encrypted with a password of `length` characters ('p' repeated).
    std::string keyWithPasswordLength(int length) const;
};

const TlsMaterial & material();


// A client and a server SSL joined by a BIO pair, driven in memory.
class HandshakePair {
public:
    HandshakePair(SSL_CTX * clientContext, SSL_CTX * serverContext);
    ~HandshakePair();
    HandshakePair(const HandshakePair &) = delete;
    HandshakePair & operator=(const HandshakePair &) = delete;

    // Steps both sides until both finish or one fails, at most 50 rounds. True on success;
    // on failure the failing side's SSL_get_error result is in `clientError`/`serverError`
    // and OpenSSL's error queue is left as the failure left it.
    bool run();

    SSL * client;
    SSL * server;
    int clientError = SSL_ERROR_NONE;
    int serverError = SSL_ERROR_NONE;
};

}  // namespace corvane_test
