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
#include "tlsmaterial.h"
#include "expect.h"
#include "logcapture.h"
#include "tls/sslexception.h"
#include "tls/toolsinternalexception.h"

namespace {

using corvane_test::LogCapture;
using corvane_test::material;

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

TEST_F(SSLContextTest, EachFailingStepLogsItsSentenceAndThrowsItWithTheCause) {
    const auto & m = material();
    const std::string missing = m.directory + "/missing.pem";
    const std::string noFile = "No such file or directory";
    const struct {
        std::string options;
        std::string sentence;
        std::string cause;  // empty: any
    } cases[] = {
        {"CertificateFile=" + missing, "unable to load certificate file '" + missing + "'", noFile},
        {"CertificateFile=" + m.directory, "unable to load certificate file '" + m.directory + "'", ""},
        {"PrivateKeyFile=" + missing, "unable to load private key file '" + missing + "'", noFile},
        {"PrivateKeyFile=" + m.encryptedKey + ";PrivatePassword=wrong",
         "unable to load private key file '" + m.encryptedKey + "'", ""},
        // A key of another type lands in another slot, so only the explicit check catches it.
        {"CertificateFile=" + m.serverCert + ";PrivateKeyFile=" + m.otherKey,
         "private key file '" + m.otherKey + "' does not match certificate file '" + m.serverCert + "'", ""},
        {"CAFile=" + missing, "unable to load CA file '" + missing + "' or the path '' is not valid", noFile},
        {"CipherList=NO-SUCH-CIPHER", "unable to set cipher list to 'NO-SUCH-CIPHER'", ""},
    };
    for (const auto & c : cases) {
        SCOPED_TRACE(c.options);
        LogCapture log;
        try {
            makeContext("LoadCryptoCertStore=false;" + c.options);
            ADD_FAILURE() << "setup succeeded";
        } catch (const tools::SSLException & e) {
            // One line: the sentence, then the first cause.
            const std::string text = e.what();
            EXPECT_EQ(text.rfind(c.sentence + ": ", 0), 0u) << text;
            EXPECT_GT(text.size(), c.sentence.size() + 2) << text;
            EXPECT_EQ(text.find('\n'), std::string::npos) << text;
            if (!c.cause.empty()) {
                EXPECT_EQ(text, c.sentence + ": " + c.cause);
            }
            EXPECT_EQ(log.count("corvane.tools.SSLException", "WARN", text), 1u);
            EXPECT_EQ(ERR_peek_error(), 0u) << "the queue is drained";
        }
        EXPECT_EQ(log.count(contextCategory, "ERROR", c.sentence), 1u);
        EXPECT_EQ(log.count(contextCategory, "ERROR", ""), 1u);
    }
}

// A missing bundle is an InternalException naming the file; a wrong password or a file that
// is no bundle is an SSLException.
TEST_F(SSLContextTest, PKCS12Failures) {
    const auto & m = material();
    const std::string missing = m.directory + "/missing.p12";
    const std::string text = "Error opening PKCS#12 file '" + missing + "': No such file or directory";
    LogCapture log;
    EXPECT_EQ(corvane_test::thrownText([&] { makeContext("LoadCryptoCertStore=false;PKCS12File=" + missing); }), text);
    EXPECT_THROW(makeContext("LoadCryptoCertStore=false;PKCS12File=" + missing), tools::InternalException);
    EXPECT_EQ(log.count("corvane.tools.InternalException", "WARN", text), 2u);
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

// Verification and resumption show end to end in the transport's tests; the weak methods only here.
TEST_F(SSLContextTest, OnlyExactTrueSwitchesWeakMethodsAndVerificationOff) {
    struct Case {
        const char * options;
        bool noSSLv3;
        int verifyMode;
    } cases[] = {
        {"EnableWeakMethods=TRUE;NoCertify=True", true, SSL_VERIFY_PEER},
        {"EnableWeakMethods=true;NoCertify=true", false, SSL_VERIFY_NONE},
    };
    for (const auto & c : cases) {
        SCOPED_TRACE(c.options);
        LogCapture log;
        tools::SSLContext context = makeContext(std::string("LoadCryptoCertStore=false;") + c.options);
        const uint64_t options = SSL_CTX_get_options(context.context());
        EXPECT_EQ((options & SSL_OP_NO_SSLv3) != 0, c.noSSLv3);
        EXPECT_EQ(SSL_CTX_get_verify_mode(context.context()), c.verifyMode);
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
    // An address is matched against the certificate's IP entries, not its DNS names.
    EXPECT_NO_THROW(tools::SSLContext::validateCertificates(pair.client, "127.0.0.1"));
    EXPECT_THROW(tools::SSLContext::validateCertificates(pair.client, "127.0.0.2"), tools::InternalException);
    // X509_check_host reports a null name as malformed (-2), which is not a verdict.
    EXPECT_NO_THROW(tools::SSLContext::validateCertificates(pair.client, nullptr));
    try {
        tools::SSLContext::validateCertificates(pair.client, "www.example.com");
        ADD_FAILURE() << "a foreign name passed";
    } catch (const tools::InternalException & e) {
        EXPECT_STREQ(e.what(), "validateCertificates: Common name doesn't match host name");
    }
    EXPECT_EQ(log.count("corvane.tools.InternalException", "WARN", "validateCertificates: Common name doesn't match host name"), 2u);
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
    // CAFile and CAPath show in the transport's tests.
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
