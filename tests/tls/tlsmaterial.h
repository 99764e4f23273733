// TLS material for tests, made once per test binary with the OpenSSL API in a private
// temporary directory that is removed at exit: a CA, a localhost server certificate (also as
// an encrypted key and a PKCS#12 bundle), an expired CA, an expired localhost certificate, a
// certificate for another name and a client certificate. Nothing of it is ever committed.
#pragma once

#include <openssl/pem.h>
#include <openssl/pkcs12.h>
#include <openssl/x509v3.h>
#include <stdlib.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

namespace corvane_test {

// TLS material, made once per test binary with the OpenSSL API in a private temporary
// directory that is removed at exit; nothing of it is ever committed.
class Material {
public:
    std::string directory, caFile, caPath, serverCert, serverKey, encryptedKey, otherKey, pkcs12File, expiredCert,
        rootBundle, clientCert, clientKeyFile, otherNameCert, expiredServerCert;
    const std::string password = "s3cret";

    Material() {
        char pattern[] = "/tmp/corvane-tls-XXXXXX";
        check(mkdtemp(pattern) != nullptr, "mkdtemp");
        directory = pattern;
        EVP_PKEY * caKey = EVP_RSA_gen(2048);
        m_serverKey = EVP_RSA_gen(2048);
        EVP_PKEY * ecKey = EVP_EC_gen("P-256");
        check(caKey != nullptr && m_serverKey != nullptr && ecKey != nullptr, "keys");
        X509 * ca = certificate(caKey, "corvane test CA", nullptr, nullptr, -1, 30, nullptr);
        X509 * server = certificate(m_serverKey, "localhost", ca, caKey, -1, 30, "DNS:localhost,IP:127.0.0.1");
        X509 * expired = certificate(ecKey, "corvane expired CA", nullptr, nullptr, -30, -1, nullptr);
        EVP_PKEY * clientKey = EVP_EC_gen("P-256");
        check(clientKey != nullptr, "client key");
        X509 * client = certificate(clientKey, "corvane client", ca, caKey, -1, 30, "DNS:client.invalid");
        X509 * otherName = certificate(m_serverKey, "otherhost", ca, caKey, -1, 30, "DNS:otherhost");
        X509 * expiredServer = certificate(m_serverKey, "localhost", ca, caKey, -30, -1, "DNS:localhost");
        writeCertificate(clientCert = directory + "/client.pem", client);
        writeKey(clientKeyFile = directory + "/client.key", clientKey, "");
        writeCertificate(otherNameCert = directory + "/othername.pem", otherName);
        writeCertificate(expiredServerCert = directory + "/expiredserver.pem", expiredServer);
        for (X509 * c : {client, otherName, expiredServer}) X509_free(c);
        EVP_PKEY_free(clientKey);
        writeCertificate(caFile = directory + "/ca.pem", ca);
        writeCertificate(serverCert = directory + "/server.pem", server);
        writeCertificate(expiredCert = directory + "/expired.pem", expired);
        writeKey(serverKey = directory + "/server.key", m_serverKey, "");
        writeKey(encryptedKey = directory + "/encrypted.key", m_serverKey, password);
        writeKey(otherKey = directory + "/other.key", ecKey, "");
        // A system bundle stand-in: expired, damaged, good.
        writeCertificate(rootBundle = directory + "/bundle.pem", expired);
        std::ofstream(rootBundle, std::ios::app) << "-----BEGIN CERTIFICATE-----\nAAECAwQFBgcICQ==\n-----END CERTIFICATE-----\n"
                                                 << std::ifstream(caFile).rdbuf();
        std::filesystem::create_directory(caPath = directory + "/capath");
        char hashName[32];
        std::snprintf(hashName, sizeof hashName, "/%08lx.0", X509_NAME_hash_ex(X509_get_subject_name(ca), nullptr, nullptr, nullptr));
        std::filesystem::copy_file(caFile, caPath + hashName);
        STACK_OF(X509) * chain = sk_X509_new_null();
        sk_X509_push(chain, ca);
        PKCS12 * bundle = PKCS12_create(password.c_str(), "server", m_serverKey, server, chain, 0, 0, 0, 0, 0);
        BIO * bio = BIO_new_file((pkcs12File = directory + "/server.p12").c_str(), "wb");
        check(bundle != nullptr && bio != nullptr && i2d_PKCS12_bio(bio, bundle) == 1, "PKCS#12");
        BIO_free(bio);
        PKCS12_free(bundle);
        sk_X509_free(chain);
        for (X509 * c : {ca, server, expired}) X509_free(c);
        for (EVP_PKEY * k : {caKey, ecKey}) EVP_PKEY_free(k);
    }
    ~Material() {
        EVP_PKEY_free(m_serverKey);
        std::error_code ignored;
        std::filesystem::remove_all(directory, ignored);
    }

    // The server key encrypted with a password of `length` times 'p'.
    std::string keyWithPasswordLength(int length) const {
        const std::string path = directory + "/password-" + std::to_string(length) + ".key";
        writeKey(path, m_serverKey, std::string(static_cast<std::size_t>(length), 'p'));
        return path;
    }

private:
    static void check(bool ok, const char * what) {
        if (!ok) throw std::runtime_error(std::string("making TLS material failed: ") + what);
    }
    static void addExtension(X509 * x, X509V3_CTX * v3, int nid, const char * value) {
        X509_EXTENSION * extension = X509V3_EXT_conf_nid(nullptr, v3, nid, value);
        check(extension != nullptr && X509_add_ext(x, extension, -1) == 1, value);
        X509_EXTENSION_free(extension);
    }
    // Self-signed when issuer is null; a CA unless it has altNames; valid in days from now.
    static X509 * certificate(EVP_PKEY * key, const char * name, X509 * issuer, EVP_PKEY * issuerKey, long from, long to,
                              const char * altNames) {
        static long serial = 1;
        X509 * x = X509_new();
        X509_set_version(x, 2);
        ASN1_INTEGER_set(X509_get_serialNumber(x), serial++);
        X509_gmtime_adj(X509_getm_notBefore(x), from * 86400);
        X509_gmtime_adj(X509_getm_notAfter(x), to * 86400);
        X509_set_pubkey(x, key);
        X509_NAME_add_entry_by_txt(X509_get_subject_name(x), "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char *>(name), -1, -1, 0);
        X509_set_issuer_name(x, X509_get_subject_name(issuer != nullptr ? issuer : x));
        X509V3_CTX v3;
        X509V3_set_ctx_nodb(&v3);
        X509V3_set_ctx(&v3, issuer != nullptr ? issuer : x, x, nullptr, nullptr, 0);
        addExtension(x, &v3, NID_basic_constraints, altNames == nullptr ? "critical,CA:TRUE" : "CA:FALSE");
        if (altNames != nullptr) addExtension(x, &v3, NID_subject_alt_name, altNames);
        check(X509_sign(x, issuerKey != nullptr ? issuerKey : key, EVP_sha256()) > 0, "sign");
        return x;
    }
    static void writeCertificate(const std::string & path, X509 * x) {
        BIO * bio = BIO_new_file(path.c_str(), "w");
        check(bio != nullptr && PEM_write_bio_X509(bio, x) == 1, path.c_str());
        BIO_free(bio);
    }
    static void writeKey(const std::string & path, EVP_PKEY * key, const std::string & password) {
        BIO * bio = BIO_new_file(path.c_str(), "w");
        check(bio != nullptr && PEM_write_bio_PrivateKey(bio, key, password.empty() ? nullptr : EVP_aes_256_cbc(),
                                                          reinterpret_cast<const unsigned char *>(password.data()),
                                                          static_cast<int>(password.size()), nullptr, nullptr) == 1,
              path.c_str());
        BIO_free(bio);
    }

    EVP_PKEY * m_serverKey = nullptr;
};

inline const Material & material() {
    static const Material instance;
    return instance;
}

// Options for every scheme from this material: each transport reads its own keys. The client
// trusts the test CA and goes direct.
inline std::string ServerOptions() {
    return "CertificateFile=" + material().serverCert + ";PrivateKeyFile=" + material().serverKey;
}
inline std::string ClientOptions() {
    return "EnableProxy=false;ValidateServerName=false;LoadCryptoCertStore=false;CAFile=" + material().caFile;
}

}  // namespace corvane_test
