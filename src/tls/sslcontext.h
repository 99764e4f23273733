// tools::SSLContext: turns a channel's options into one configured OpenSSL context. Held by
// value by its user: a client connection builds one per connection, a channel server keeps
// one for as long as it listens. No lock and no thread of its own: it is built and set up on
// the thread that opens the channel or starts the server.
#pragma once

#include <openssl/ssl.h>

#include <string>

namespace net {
class OptionMap;
}

namespace tools {

class SSLContext {
public:
    static constexpr const char defaultCipherList[] =
        "ECDH+AESGCM:DH+AESGCM:ECDH+AES256:DH+AES256:ECDH+AES128:DH+AES:ECDH+3DES:DH+3DES:RSA+AESGCM:RSA+AES:"
        "RSA+3DES:!aNULL:!MD5:!DSS";

    // The defaults: no certificate, key or PKCS#12 file, verification on, the system stores
    // trusted, defaultCipherList, SSLv3 off, session resumption on. Makes no OpenSSL call.
    SSLContext();
    // The defaults, each replaced by the option of the same key when present (also when
    // present and empty). Touches no file and makes no OpenSSL call.
    explicit SSLContext(const net::OptionMap & options);
    // Takes over the context and the options; the source keeps nothing to release.
    SSLContext(SSLContext && other) noexcept;
    SSLContext(const SSLContext &) = delete;
    SSLContext & operator=(const SSLContext &) = delete;
    SSLContext & operator=(SSLContext &&) = delete;
    ~SSLContext();

    // Builds the OpenSSL context from the options, reading the files and system stores they
    // name. The argument has no effect. Throws SSLException, one line: the step that failed
    // with its file or setting, ": " and the first cause (for a file, the system's); or
    // InternalException. After a throw the context is still safe to destroy.
    void setup(bool unused = false);
    // The OpenSSL context, set up first if that has not happened yet. Still owned here:
    // an SSL made from it keeps its own reference.
    SSL_CTX * context();
    // For a server, after setup (run first if needed): throws InternalException naming what
    // is missing when the context has no certificate, or no private key that matches it.
    void requireServerIdentity();
    // Whether connections of this context may resume earlier sessions (option
    // SessionResumption, "true" unless given otherwise).
    bool sessionResumption() const;

    // Installed by setup unless NoCertify is "true": logs why a certificate failed and
    // forgives nothing. Runs inside OpenSSL on the handshaking thread.
    static int verifyCallback(int preverifyOk, X509_STORE_CTX * storeContext);
    // Checks a finished client handshake: the chain verified and the peer certificate is
    // for hostName (X509_check_host(3) without flags). Throws InternalException with the
    // verdict, SSLException when the peer sent no certificate.
    static void validateCertificates(SSL * ssl, const char * hostName);

private:
    static int passwordCallback(char * buffer, int size, int rwflag, void * userdata);
    void loadPKCS12();
    [[noreturn]] void fail(const std::string & text);

    SSL_CTX * m_ctx = nullptr;
    std::string m_CertificateFile;
    std::string m_PrivateKeyFile;
    std::string m_PrivatePassword;
    std::string m_NoCertify;
    std::string m_LoadCryptoCertStore;
    std::string m_CAFile;
    std::string m_CAPath;
    std::string m_PKCS12File;
    std::string m_CipherList;
    std::string m_EnableWeakMethods;
    std::string m_SessionResumption;
};

// Adds the certificates of a system store to ctx's trust store. On Linux "ROOT" is the
// system CA bundle (OpenSSL's default certificate file, or $SSL_CERT_FILE) and "CA" the
// system certificate directories (OpenSSL's default, or $SSL_CERT_DIR); any other name
// cannot be opened. Expired certificates are skipped. Every failure is logged at Warn and
// none is fatal.
void SSL_CTX_add_CryptoAPI_certificate_store(SSL_CTX * ctx, const char * storeName);

}  // namespace tools
