#include "tlsmaterial.h"

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/pkcs12.h>
#include <openssl/x509v3.h>
#include <stdlib.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace corvane_test {

namespace {

void check(bool ok, const char * what) {
    if (!ok) {
        throw std::runtime_error(std::string("making TLS material failed: ") + what);
    }
}

void addExtension(X509 * certificate, X509V3_CTX * v3, int nid, const char * value) {
    X509_EXTENSION * extension = X509V3_EXT_conf_nid(nullptr, v3, nid, value);
    check(extension != nullptr && X509_add_ext(certificate, extension, -1) == 1, value);
    X509_EXTENSION_free(extension);
}

// Issued by issuer/issuerKey, or self-signed when issuer is null. Validity in days from now.
X509 * makeCertificate(EVP_PKEY * key, const char * commonName, X509 * issuer, EVP_PKEY * issuerKey, long fromDays,
                       long toDays, const char * altNames) {
    static long serial = 1;
    X509 * certificate = X509_new();
    X509_set_version(certificate, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(certificate), serial++);
    X509_gmtime_adj(X509_getm_notBefore(certificate), fromDays * 86400);
    X509_gmtime_adj(X509_getm_notAfter(certificate), toDays * 86400);
    X509_set_pubkey(certificate, key);
    X509_NAME * name = X509_get_subject_name(certificate);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char *>(commonName), -1, -1, 0);
    X509_set_issuer_name(certificate, issuer != nullptr ? X509_get_subject_name(issuer) : name);
    X509V3_CTX v3;
    X509V3_set_ctx_nodb(&v3);
    X509V3_set_ctx(&v3, issuer != nullptr ? issuer : certificate, certificate, nullptr, nullptr, 0);
    addExtension(certificate, &v3, NID_basic_constraints, altNames == nullptr ? "critical,CA:TRUE" : "CA:FALSE");
    if (altNames != nullptr) {
        addExtension(certificate, &v3, NID_subject_alt_name, altNames);
    }
    check(X509_sign(certificate, issuerKey != nullptr ? issuerKey : key, EVP_sha256()) > 0, "sign");
    return certificate;
}

void writeCertificates(const std::string & path, std::initializer_list<X509 *> certificates) {
    BIO * bio = BIO_new_file(path.c_str(), "w");
    check(bio != nullptr, path.c_str());
    for (X509 * certificate : certificates) {
        PEM_write_bio_X509(bio, certificate);
    }
    BIO_free(bio);
}

void writeKey(const std::string & path, EVP_PKEY * key, const std::string & password) {
    BIO * bio = BIO_new_file(path.c_str(), "w");
    check(bio != nullptr, path.c_str());
    const bool encrypt = !password.empty();
    check(PEM_write_bio_PrivateKey(bio, key, encrypt ? EVP_aes_256_cbc() : nullptr,
                                   reinterpret_cast<const unsigned char *>(password.data()),
                                   static_cast<int>(password.size()), nullptr, nullptr) == 1,
          path.c_str());
    BIO_free(bio);
}

struct Material : TlsMaterial {
    EVP_PKEY * serverPrivateKey = nullptr;

    Material() {
        char pattern[] = "/tmp/corvane-tls-XXXXXX";
        check(mkdtemp(pattern) != nullptr, "mkdtemp");
        directory = pattern;
        EVP_PKEY * caKey = EVP_RSA_gen(2048);
        serverPrivateKey = EVP_RSA_gen(2048);
        EVP_PKEY * ecKey = EVP_EC_gen("P-256");
        check(caKey != nullptr && serverPrivateKey != nullptr && ecKey != nullptr, "keys");
        X509 * ca = makeCertificate(caKey, "corvane test CA", nullptr, nullptr, -1, 30, nullptr);
        X509 * server =
            makeCertificate(serverPrivateKey, "localhost", ca, caKey, -1, 30, "DNS:localhost,IP:127.0.0.1");
        X509 * expired = makeCertificate(ecKey, "corvane expired CA", nullptr, nullptr, -30, -1, nullptr);

        caFile = directory + "/ca.pem";
        serverCert = directory + "/server.pem";
        serverKey = directory + "/server.key";
        encryptedKey = directory + "/server-encrypted.key";
        otherKey = directory + "/other.key";
        expiredCert = directory + "/expired.pem";
        rootBundle = directory + "/bundle.pem";
        pkcs12File = directory + "/server.p12";
        caPath = directory + "/capath";
        writeCertificates(caFile, {ca});
        writeCertificates(serverCert, {server});
        writeCertificates(expiredCert, {expired});
        writeKey(serverKey, serverPrivateKey, "");
        writeKey(encryptedKey, serverPrivateKey, password);
        writeKey(otherKey, ecKey, "");

        writeCertificates(rootBundle, {expired});
        std::ofstream(rootBundle, std::ios::app) << "-----BEGIN CERTIFICATE-----\nAAECAwQFBgcICQ==\n-----END CERTIFICATE-----\n";
        std::ofstream(rootBundle, std::ios::app) << std::ifstream(caFile).rdbuf();

        std::filesystem::create_directory(caPath);
        char hashName[32];
        std::snprintf(hashName, sizeof hashName, "/%08lx.0", X509_NAME_hash_ex(X509_get_subject_name(ca), nullptr, nullptr, nullptr));
        std::filesystem::copy_file(caFile, caPath + hashName);

        STACK_OF(X509) * chain = sk_X509_new_null();
        sk_X509_push(chain, ca);
        PKCS12 * bundle = PKCS12_create(password.c_str(), "server", serverPrivateKey, server, chain, 0, 0, 0, 0, 0);
        check(bundle != nullptr, "PKCS12_create");
        BIO * bio = BIO_new_file(pkcs12File.c_str(), "wb");
        check(bio != nullptr && i2d_PKCS12_bio(bio, bundle) == 1, "write PKCS#12");
        BIO_free(bio);
        PKCS12_free(bundle);
        sk_X509_free(chain);
        X509_free(expired);
        X509_free(server);
        X509_free(ca);
        EVP_PKEY_free(ecKey);
        EVP_PKEY_free(caKey);
    }
    ~Material() {
        EVP_PKEY_free(serverPrivateKey);
        std::error_code ignored;
        std::filesystem::remove_all(directory, ignored);
    }
};

}  // namespace

std::string TlsMaterial::keyWithPasswordLength(int length) const {
    const std::string path = directory + "/password-" + std::to_string(length) + ".key";
    writeKey(path, static_cast<const Material *>(this)->serverPrivateKey, std::string(static_cast<std::size_t>(length), 'p'));
    return path;
}

const TlsMaterial & material() {
    static const Material instance;
    return instance;
}

HandshakePair::HandshakePair(SSL_CTX * clientContext, SSL_CTX * serverContext)
    : client(SSL_new(clientContext)), server(SSL_new(serverContext)) {
    BIO * clientEnd = nullptr;
    BIO * serverEnd = nullptr;
    BIO_new_bio_pair(&clientEnd, 0, &serverEnd, 0);
    SSL_set_bio(client, clientEnd, clientEnd);
    SSL_set_bio(server, serverEnd, serverEnd);
    SSL_set_connect_state(client);
    SSL_set_accept_state(server);
}

HandshakePair::~HandshakePair() {
    SSL_free(client);
    SSL_free(server);
}

bool HandshakePair::run() {
    bool clientDone = false;
    bool serverDone = false;
    auto step = [](SSL * ssl, bool & done, int & error) {
        if (done) {
            return true;
        }
        int result = SSL_do_handshake(ssl);
        done = result == 1;
        error = done ? SSL_ERROR_NONE : SSL_get_error(ssl, result);
        return done || error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE;
    };
    for (int round = 0; round < 50 && !(clientDone && serverDone); ++round) {
        if (!step(client, clientDone, clientError) || !step(server, serverDone, serverError)) {
            return false;
        }
    }
    return clientDone && serverDone;
}

}  // namespace corvane_test
