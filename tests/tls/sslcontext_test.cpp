#include "tls/sslcontext.h"

#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/pkcs12.h>
#include <openssl/x509v3.h>
#include <stdlib.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "net/optionmap.h"
#include "logcapture.h"
#include "tls/sslexception.h"
#include "tls/toolsinternalexception.h"

namespace {

using corvane_test::LogCapture;

// TLS material, made once per test binary with the OpenSSL API in a private temporary
// directory that is removed at exit; nothing of it is ever committed.
class Material {
public:
    std::string directory, caFile, caPath, serverCert, serverKey, encryptedKey, otherKey, pkcs12File, expiredCert,
        rootBundle;
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

const Material & material() {
    static const Material instance;
    return instance;
}

// A client and a server SSL joined by a BIO pair, stepped in memory.
struct HandshakePair {
    SSL * client;
    SSL * server;
    int clientError = SSL_ERROR_NONE;

    HandshakePair(SSL_CTX * clientContext, SSL_CTX * serverContext)
        : client(SSL_new(clientContext)), server(SSL_new(serverContext)) {
        BIO * clientEnd = nullptr;
        BIO * serverEnd = nullptr;
        BIO_new_bio_pair(&clientEnd, 0, &serverEnd, 0);
        SSL_set_bio(client, clientEnd, clientEnd);
        SSL_set_bio(server, serverEnd, serverEnd);
        SSL_set_connect_state(client);
        SSL_set_accept_state(server);
    }
    ~HandshakePair() {
        SSL_free(client);
        SSL_free(server);
    }
    HandshakePair(const HandshakePair &) = delete;
    HandshakePair & operator=(const HandshakePair &) = delete;

    // Both sides in turn until both finish or one fails, at most 50 rounds.
    bool run() {
        int serverError = SSL_ERROR_NONE;
        bool clientDone = false, serverDone = false;
        auto step = [](SSL * ssl, bool & done, int & error) {
            const int result = done ? 1 : SSL_do_handshake(ssl);
            done = result == 1;
            error = done ? SSL_ERROR_NONE : SSL_get_error(ssl, result);
            return done || error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE;
        };
        for (int round = 0; round < 50 && !(clientDone && serverDone); ++round) {
            if (!step(client, clientDone, clientError) || !step(server, serverDone, serverError)) return false;
        }
        return clientDone && serverDone;
    }
};

const char * const contextCategory = "corvane.tools.SSLContext";

tools::SSLContext makeContext(const std::string & options) {
    net::OptionMap map;
    map.parse(options.c_str());
    tools::SSLContext context(map);
    context.setup(false);
    return context;
}

// The server side of most cases: the localhost certificate from files, no system stores.
tools::SSLContext serverContext() {
    return makeContext("LoadCryptoCertStore=false;CertificateFile=" + material().serverCert +
                       ";PrivateKeyFile=" + material().serverKey);
}

class SSLContextTest : public ::testing::Test {
protected:
    void TearDown() override { ERR_clear_error(); }
};

TEST_F(SSLContextTest, EachFailingStepLogsItsSentenceAndThrowsOpenSSLsWords) {
    const auto & m = material();
    const std::string missing = m.directory + "/missing.pem";
    const struct {
        std::string options;
        std::string sentence;
    } cases[] = {
        {"CertificateFile=" + missing, "unable to load certificate file '" + missing + "'"},
        {"PrivateKeyFile=" + missing, "unable to load private key file '" + missing + "'"},
        {"PrivateKeyFile=" + m.encryptedKey + ";PrivatePassword=wrong",
         "unable to load private key file '" + m.encryptedKey + "'"},
        // A key of another type lands in another slot, so only the explicit check catches it.
        {"CertificateFile=" + m.serverCert + ";PrivateKeyFile=" + m.otherKey,
         "private key file '" + m.otherKey + "' does not match certificate file '" + m.serverCert + "'"},
        {"CAFile=" + missing, "unable to load CA file '" + missing + "' or the path '' is not valid"},
        {"CipherList=NO-SUCH-CIPHER", "unable to set cipher list to 'NO-SUCH-CIPHER'"},
    };
    for (const auto & c : cases) {
        SCOPED_TRACE(c.options);
        LogCapture log;
        try {
            makeContext("LoadCryptoCertStore=false;" + c.options);
            ADD_FAILURE() << "setup succeeded";
        } catch (const tools::SSLException & e) {
            const std::string text = e.what();
            EXPECT_EQ(text.rfind("openssl:", 0), 0u) << text;
            EXPECT_EQ(text.back(), '\n');
            EXPECT_EQ(log.count("corvane.tools.SSLException", "WARN", text), 1u);
        }
        EXPECT_EQ(log.count(contextCategory, "ERROR", c.sentence), 1u);
        EXPECT_EQ(log.count(contextCategory, "ERROR", ""), 1u);
    }
}

TEST_F(SSLContextTest, MissingPKCS12FileIsAnInternalExceptionNamingTheFile) {
    const std::string missing = material().directory + "/missing.p12";
    LogCapture log;
    try {
        makeContext("LoadCryptoCertStore=false;PKCS12File=" + missing);
        ADD_FAILURE() << "setup succeeded";
    } catch (const tools::InternalException & e) {
        EXPECT_EQ(std::string(e.what()), "Error opening PKCS#12 file '" + missing + "'");
    }
    EXPECT_EQ(log.count("corvane.tools.InternalException", "WARN", "Error opening PKCS#12 file '" + missing + "'"), 1u);
}

TEST_F(SSLContextTest, PKCS12WithWrongPasswordOrWrongFormatIsAnSSLException) {
    const auto & m = material();
    EXPECT_THROW(makeContext("LoadCryptoCertStore=false;PrivatePassword=wrong;PKCS12File=" + m.pkcs12File),
                 tools::SSLException);
    EXPECT_THROW(makeContext("LoadCryptoCertStore=false;PKCS12File=" + m.serverCert), tools::SSLException);
}

TEST_F(SSLContextTest, PasswordThatDoesNotFitOpenSSLsBufferIsNotGiven) {
    // OpenSSL offers the callback a buffer of PEM_BUFSIZE bytes, the terminator included.
    const auto & m = material();
    EXPECT_NO_THROW(makeContext("LoadCryptoCertStore=false;PrivatePassword=" + m.password +
                                ";CertificateFile=" + m.serverCert + ";PrivateKeyFile=" + m.encryptedKey));
    const std::string fits = m.keyWithPasswordLength(PEM_BUFSIZE - 1);
    EXPECT_NO_THROW(makeContext("LoadCryptoCertStore=false;PrivateKeyFile=" + fits +
                                ";PrivatePassword=" + std::string(PEM_BUFSIZE - 1, 'p')));
    const std::string tooLong = m.keyWithPasswordLength(PEM_BUFSIZE);
    LogCapture log;
    EXPECT_THROW(makeContext("LoadCryptoCertStore=false;PrivateKeyFile=" + tooLong +
                             ";PrivatePassword=" + std::string(PEM_BUFSIZE, 'p')),
                 tools::SSLException);
    EXPECT_EQ(log.count(contextCategory, "ERROR", "unable to load private key file '" + tooLong + "'"), 1u);
}

TEST_F(SSLContextTest, OnlyExactTrueSwitchesWeakMethodsAndVerificationOff) {
    struct Case {
        const char * options;
        bool noSSLv3;
        int verifyMode;
    } cases[] = {
        {"", true, SSL_VERIFY_PEER},
        {"EnableWeakMethods=TRUE;NoCertify=True", true, SSL_VERIFY_PEER},
        {"EnableWeakMethods=1;NoCertify=yes", true, SSL_VERIFY_PEER},
        {"EnableWeakMethods=true;NoCertify=true", false, SSL_VERIFY_NONE},
    };
    for (const auto & c : cases) {
        SCOPED_TRACE(c.options);
        LogCapture log;
        tools::SSLContext context = makeContext(std::string("LoadCryptoCertStore=false;") + c.options);
        const uint64_t options = SSL_CTX_get_options(context.context());
        EXPECT_EQ((options & SSL_OP_NO_SSLv3) != 0, c.noSSLv3);
        const uint64_t always = SSL_OP_CIPHER_SERVER_PREFERENCE | SSL_OP_NO_TICKET |
                                SSL_OP_NO_SESSION_RESUMPTION_ON_RENEGOTIATION;
        EXPECT_EQ(options & always, always);
        EXPECT_EQ(SSL_CTX_get_session_cache_mode(context.context()), SSL_SESS_CACHE_OFF);
        EXPECT_EQ(SSL_CTX_get_verify_mode(context.context()), c.verifyMode);
        EXPECT_EQ(SSL_CTX_get_verify_callback(context.context()) == &tools::SSLContext::verifyCallback,
                  c.verifyMode == SSL_VERIFY_PEER);
        if (c.noSSLv3) {
            EXPECT_EQ(log.count(contextCategory, "INFO", "disabling SSLv2 and SSLv3"), 1u);
        } else {
            EXPECT_EQ(log.count(contextCategory, "WARN", "leaving SSLv2 and SSLv3 enabled"), 1u);
        }
    }
}

// Handshakes between a client and a server SSL over a BIO pair.
class HandshakeTest : public SSLContextTest {
protected:
    tools::SSLContext m_server = serverContext();
};

TEST_F(HandshakeTest, VerifiedPeerIsJudgedByItsName) {
    tools::SSLContext client = makeContext("LoadCryptoCertStore=false;CAFile=" + material().caFile);
    HandshakePair pair(client.context(), m_server.context());
    // The server verifies but does not insist on a client certificate.
    ASSERT_TRUE(pair.run());
    EXPECT_EQ(SSL_get_verify_mode(pair.server), SSL_VERIFY_PEER);
    LogCapture log;
    EXPECT_NO_THROW(tools::SSLContext::validateCertificates(pair.client, "localhost"));
    EXPECT_NO_THROW(tools::SSLContext::validateCertificates(pair.client, "LocalHost"));
    // X509_check_host reports a null name as malformed (-2), which is not a verdict.
    EXPECT_NO_THROW(tools::SSLContext::validateCertificates(pair.client, nullptr));
    try {
        tools::SSLContext::validateCertificates(pair.client, "www.example.com");
        ADD_FAILURE() << "a foreign name passed";
    } catch (const tools::InternalException & e) {
        EXPECT_STREQ(e.what(), "validateCertificates: Common name doesn't match host name");
    }
    EXPECT_EQ(log.countContaining(contextCategory, "validateCertificates( 0x"), 4u);
    EXPECT_EQ(log.countContaining(contextCategory, ", 'localhost')"), 1u);
    EXPECT_EQ(log.count("corvane.tools.InternalException", "WARN", "validateCertificates: Common name doesn't match host name"), 1u);
}

TEST_F(HandshakeTest, NoCertifyLetsAnUnverifiedChainThroughTheHandshakeButNotTheCheck) {
    tools::SSLContext client = makeContext("LoadCryptoCertStore=false;NoCertify=true;CAFile=" + material().expiredCert);
    HandshakePair pair(client.context(), m_server.context());
    ASSERT_TRUE(pair.run());
    EXPECT_NE(SSL_get_verify_result(pair.client), X509_V_OK);
    try {
        tools::SSLContext::validateCertificates(pair.client, "localhost");
        ADD_FAILURE() << "an unverified chain passed";
    } catch (const tools::InternalException & e) {
        EXPECT_STREQ(e.what(), "validateCertificates: Certificate doesn't verify");
    }
}

TEST_F(HandshakeTest, VerificationOnRefusesAnUnknownIssuerAndSaysWhy) {
    // "True" is not "true": verification stays on.
    tools::SSLContext client = makeContext("LoadCryptoCertStore=false;NoCertify=True;CAFile=" + material().expiredCert);
    HandshakePair pair(client.context(), m_server.context());
    LogCapture log;
    EXPECT_FALSE(pair.run());
    EXPECT_EQ(pair.clientError, SSL_ERROR_SSL);
    EXPECT_NE(tools::openSSLErrorText().find("certificate verify failed"), std::string::npos);
    EXPECT_EQ(log.count(contextCategory, "WARN",
                        "SSL verify error or warning with certificate at depth 0: unable to get local issuer certificate"),
              1u);
    EXPECT_EQ(log.count(contextCategory, "WARN", "certificate issuer /CN=corvane test CA"), 1u);
    EXPECT_EQ(log.count(contextCategory, "WARN", "certificate subject /CN=localhost"), 1u);
}

TEST_F(HandshakeTest, PKCS12ServerSendsItsChainInTheBundlesOrder) {
    const auto & m = material();
    tools::SSLContext server =
        makeContext("LoadCryptoCertStore=false;PrivatePassword=" + m.password + ";PKCS12File=" + m.pkcs12File);
    tools::SSLContext client = makeContext("LoadCryptoCertStore=false;CAFile=" + m.caFile);
    HandshakePair pair(client.context(), server.context());
    ASSERT_TRUE(pair.run());
    EXPECT_NO_THROW(tools::SSLContext::validateCertificates(pair.client, "localhost"));
    STACK_OF(X509) * chain = SSL_get_peer_cert_chain(pair.client);
    ASSERT_EQ(sk_X509_num(chain), 2);
    char issuer[256];
    X509_NAME_oneline(X509_get_subject_name(sk_X509_value(chain, 1)), issuer, sizeof issuer);
    EXPECT_STREQ(issuer, "/CN=corvane test CA");
}

TEST_F(HandshakeTest, DiffieHellmanSuitesWorkWithTheFixedGroup) {
    // Without the context's DH group a server has no DHE suite to offer.
    tools::SSLContext server = makeContext("LoadCryptoCertStore=false;CipherList=DH+AESGCM;CertificateFile=" +
                                           material().serverCert + ";PrivateKeyFile=" + material().serverKey);
    tools::SSLContext client = makeContext("LoadCryptoCertStore=false;CipherList=DH+AESGCM;NoCertify=true");
    SSL_CTX_set_max_proto_version(client.context(), TLS1_2_VERSION);
    HandshakePair pair(client.context(), server.context());
    ASSERT_TRUE(pair.run());
    EXPECT_STREQ(SSL_get_cipher_name(pair.client), "DHE-RSA-AES256-GCM-SHA384");
}

TEST_F(HandshakeTest, EveryTrustLocationIsHonoured) {
    const auto & m = material();
    auto expectTrusted = [&](const std::string & options) {
        SCOPED_TRACE(options);
        tools::SSLContext client = makeContext(options);
        HandshakePair pair(client.context(), m_server.context());
        ASSERT_TRUE(pair.run());
        EXPECT_NO_THROW(tools::SSLContext::validateCertificates(pair.client, "localhost"));
    };
    expectTrusted("LoadCryptoCertStore=false;CAPath=;CAFile=" + m.caFile);
    expectTrusted("LoadCryptoCertStore=false;CAPath=" + m.caPath);
    // Both empty: OpenSSL's default locations, here pointed at the test CA.
    setenv("SSL_CERT_FILE", m.caFile.c_str(), 1);
    expectTrusted("LoadCryptoCertStore=false");
    {
        // The system stores: "ROOT" is the bundle, "CA" a directory that does not exist.
        setenv("SSL_CERT_FILE", m.rootBundle.c_str(), 1);
        setenv("SSL_CERT_DIR", (m.directory + "/no-such-directory").c_str(), 1);
        LogCapture log;
        expectTrusted("CAFile=" + m.expiredCert);
        unsetenv("SSL_CERT_FILE");
        unsetenv("SSL_CERT_DIR");
        EXPECT_EQ(log.count(contextCategory, "WARN", "not adding expired certificate with subject ='CN=corvane expired CA'"), 1u);
        EXPECT_EQ(log.countContaining(contextCategory, "unable to decode to x509 certificate for '': openssl:"), 1u);
        EXPECT_EQ(log.countContaining(contextCategory, "unable to add certificate '': openssl:"), 1u);
        EXPECT_EQ(log.count(contextCategory, "TRACE", "Adding root certificate for 'CN=corvane test CA'"), 1u);
        EXPECT_EQ(log.count(contextCategory, "WARN", "Unable to open System Store 'CA'"), 1u);
    }
}

TEST_F(SSLContextTest, RealSystemStoresLoadWithoutFailures) {
    LogCapture log;
    EXPECT_NO_THROW(makeContext(""));
    EXPECT_EQ(log.countContaining(contextCategory, "Unable to open System Store"), 0u);
    EXPECT_EQ(log.countContaining(contextCategory, "unable to"), 0u);
    EXPECT_GT(log.countContaining(contextCategory, "Adding root certificate for '"), 0u);
}

}  // namespace
