#include "tls/sslexception.h"

#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "logcapture.h"
#include "tls/ssllibraryguard.h"
#include "tls/sslinternalexception.h"
#include "tls/toolsinternalexception.h"

namespace {

using corvane_test::LogCapture;

// The line that the error queue gives for a cipher list that matches nothing.
std::string noCipherMatchLine(const char * prefix) {
    const unsigned long code = ERR_PACK(ERR_LIB_SSL, 0, SSL_R_NO_CIPHER_MATCH);
    return std::string(prefix) + ":" + std::to_string(code) + ":SSL routines::no cipher match\n";
}

// Leaves one "no cipher match" error in this thread's queue.
void failCipherList() {
    SSL_CTX * context = SSL_CTX_new(TLS_method());
    ASSERT_EQ(SSL_CTX_set_cipher_list(context, "NO-SUCH-CIPHER"), 0);
    SSL_CTX_free(context);
}

class SSLErrorTextTest : public ::testing::Test {
protected:
    void SetUp() override { ERR_clear_error(); }
    void TearDown() override { ERR_clear_error(); }
};

// The queue, when there is one, wins over errno; a would-block errno is told by its code.
TEST_F(SSLErrorTextTest, TextOfEachResult) {
    const std::string wouldBlock = "SSL_read:SSL_ERROR_SYSCALL failed with error code '" + std::to_string(EWOULDBLOCK) +
                                   "' : Resource temporarily unavailable";
    const struct {
        int error;
        const char * call;
        bool queued;
        std::string expected;
        int code;
    } cases[] = {
        {SSL_ERROR_WANT_READ, "SSL_read", false, "SSL_read:SSL_ERROR_WANT_READ", -7},
        {SSL_ERROR_ZERO_RETURN, "SSL_peek", false, "SSL_peek:SSL_ERROR_ZERO_RETURN", -7},
        {9, "x", false, "x:<unknown:ret=9>", -7},
        {SSL_ERROR_SSL, "SSL_connect", false, "SSL_connect:", -7},
        {SSL_ERROR_SSL, "SSL_connect", true, "SSL_connect:" + noCipherMatchLine("SSL_ERROR_SSL"), -7},
        {SSL_ERROR_SYSCALL, "SSL_write", true, "SSL_write:" + noCipherMatchLine("SSL_ERROR_SYSCALL"), -7},
        {SSL_ERROR_SYSCALL, "SSL_read", false, wouldBlock, tools::kWouldBlock},
    };
    for (const auto & c : cases) {
        if (c.queued) {
            failCipherList();
        }
        errno = EWOULDBLOCK;
        int code = -7;
        EXPECT_EQ(tools::sslErrorText(c.error, c.call, &code), c.expected);
        EXPECT_EQ(code, c.code) << c.expected;
        EXPECT_EQ(ERR_peek_error(), 0u);
        if (!c.queued) {  // without a place for the code
            errno = EWOULDBLOCK;
            EXPECT_EQ(tools::sslErrorText(c.error, c.call, nullptr), c.expected);
        }
    }
    EXPECT_STREQ(tools::sslErrorName(SSL_ERROR_WANT_ACCEPT), "SSL_ERROR_WANT_ACCEPT");
    EXPECT_STREQ(tools::sslErrorName(9), "<unknown>");
}

TEST_F(SSLErrorTextTest, PeerThatVanishedIsASystemErrorWithItsErrno) {
    // OpenSSL's socket BIO writes with write(2); the test, unlike the library, may ignore SIGPIPE.
    struct sigaction ignore = {}, previous = {};
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &ignore, &previous);
    int sockets[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sockets), 0);
    close(sockets[1]);
    SSL_CTX * context = SSL_CTX_new(TLS_method());
    SSL * ssl = SSL_new(context);
    SSL_set_fd(ssl, sockets[0]);
    const int result = SSL_connect(ssl);
    const int error = SSL_get_error(ssl, result);
    int code = 0;
    const std::string text = tools::sslErrorText(error, "SSL_connect", &code);
    SSL_free(ssl);
    SSL_CTX_free(context);
    close(sockets[0]);
    sigaction(SIGPIPE, &previous, nullptr);
    EXPECT_EQ(error, SSL_ERROR_SYSCALL);
    EXPECT_EQ(code, EPIPE);
    EXPECT_EQ(text, "SSL_connect:SSL_ERROR_SYSCALL failed with error code '" + std::to_string(EPIPE) + "' : Broken pipe");
}

TEST(InternalExceptions, ToolsAndSslLogEveryConstructionWhateverLogItSays) {
    LogCapture log;
    tools::InternalException tools1("validateCertificates: Certificate doesn't verify", false);
    ssl::InternalException ssl1("SSL_connect:SSL_ERROR_SYSCALL", false);
    tools::InternalException toolsCopy(tools1);
    ssl::InternalException sslCopy(ssl1);
    EXPECT_STREQ(sslCopy.what(), "SSL_connect:SSL_ERROR_SYSCALL");
    EXPECT_EQ(log.count("corvane.tools.InternalException", "WARN", "validateCertificates: Certificate doesn't verify"), 1u);
    EXPECT_EQ(log.count("corvane.ssl.InternalException", "WARN", "SSL_connect:SSL_ERROR_SYSCALL"), 1u);
    EXPECT_EQ(log.events().size(), 2u);
}

TEST(SSLLibraryGuard, EndOfOneUserLeavesTLSWorkingForTheOthers) {
    auto * first = new SSLLibraryGuard;
    SSLLibraryGuard second;
    delete first;
    ERR_clear_error();
    failCipherList();
    EXPECT_EQ(tools::openSSLErrorText(), noCipherMatchLine("openssl"));
}

}  // namespace
